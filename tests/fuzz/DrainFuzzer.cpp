// Anything that a driver may put into the record queue and into the headers that it returns.

#include "tests/fuzz/Fuzz.h"

namespace {

using Access = TransportTestAccess;

/// Accepts everything but the impossible.
class Observer : public TMIDIReaderRefConInterface
{
public:
    virtual ~Observer() = default;

    int read(int length, const void* data, bool strictStart, bool spare) override
    {
        const auto* const bytes = static_cast<const unsigned char*>(data);
        FUZZ_CHECK(length >= 1 && strictStart && !spare);
        FUZZ_CHECK(bytes[0] >= 0x80 && (bytes[0] <= 0xEF || bytes[length - 1] == 0xF7));
        FUZZ_CHECK(bytes[0] <= 0xF0);
        return 0;
    }
};

class Drain
{
public:
    explicit Drain(FuzzInput& fuzz) : fuzz(fuzz), input(sim::addInput(u"In"))
    {
        transport.registerMIDIobserver(&observer);
        sim::onCall("Sleep", [this](const sim::Call&) { yielded(); });
        open();
    }

    ~Drain()
    {
        transport.closeInput();
        transport.Release();
    }

    void step()
    {
        switch (fuzz.below(8)) {
        case 0:
            sim::raw(input, code(), fuzz.dword(), 0);
            break;
        case 1: // a notice of a header, or of an address near one
            sim::raw(input, code(), address(fuzz.word() % 770) + fuzz.below(3), 0);
            allBack = false;
            break;
        case 2:
            sim::shortMessage(input, fuzz.dword());
            break;
        case 3: {
            const Bytes bytes = fuzz.bytes(fuzz.word() % 10'000);
            sim::sysEx(input, bytes.data(), bytes.size());
            break;
        }
        case 4: {
            const DWORD claim = fuzz.flag() ? fuzz.byte() : fuzz.dword();
            const Bytes bytes = fuzz.bytes(fuzz.byte());
            returned = sim::returnBuffer(input, claim, bytes.data(), bytes.size(),
                                         fuzz.flag() ? MIM_LONGDATA : MIM_LONGERROR);
            break;
        }
        case 5:
            scribble();
            break;
        case 6:
            drain();
            break;
        case 7:
            transport.closeInput();
            restoreBuffers();
            open();
            break;
        }
    }

    void drain()
    {
        while (Access::drain(transport) != 0) {
        }
        yields = 0;
        device.closingInput = false;
        restoreBuffers();
        FUZZ_CHECK(device.recordQueue.avail() == 0 || !allBack);
        FUZZ_CHECK(sim::queuedBuffers(input) == kInputHeaders || !allBack);
        returned = nullptr;
    }

private:
    void open()
    {
        FUZZ_CHECK(transport.openInput(1) != nullptr);
        Access::stop(transport);
        FUZZ_CHECK(sim::queuedBuffers(input) == kInputHeaders);
        allBack = true;
        returned = nullptr;
    }

    /// The simulated device fills what a header points to.
    void restoreBuffers()
    {
        for (MIDIHDR& header : device.inHeaders) {
            header.lpData = reinterpret_cast<LPSTR>(device.inHeaders.buffer(&header));
            header.dwBufferLength = MIDIHeaderBlock::kBufferSize;
        }
    }

    UINT code() { return fuzz.flag() ? MIM_OPEN + fuzz.below(7) : fuzz.word(); }

    DWORD address(unsigned header)
    {
        return static_cast<DWORD>(
            reinterpret_cast<std::uintptr_t>(device.inHeaders.begin() + header));
    }

    /// Corrupts the header that came back last: the device does not access it before the drain.
    void scribble()
    {
        if (!returned)
            return;
        returned->dwBytesRecorded = fuzz.dword();
        returned->lpData = reinterpret_cast<LPSTR>(std::uintptr_t(fuzz.dword()));
        returned->dwBufferLength = fuzz.dword();
        returned->dwUser = fuzz.dword();
        returned->dwFlags = fuzz.dword();
        allBack = false;
    }

    /// The drain waits for a header that the device still has: the device returns one, and if it is
    /// a different one, the port begins to close.
    void yielded()
    {
        if (++yields < 4)
            sim::returnBuffer(input, 0);
        else
            device.closingInput = true;
    }

    FuzzInput& fuzz;
    const int input;
    MapAccessor accessor;
    Observer observer;
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    TWinMIDIPrivate& device = Access::device(transport);
    MIDIHDR* returned = nullptr;
    int yields = 0;
    bool allBack = true; ///< whether the input has left every header in the rotation
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput fuzz(data, size);
    const FuzzRun run;
    Drain drain(fuzz);
    while (!fuzz.atEnd())
        drain.step();
    drain.drain();
    return 0;
}
