// Sends of any length and status byte, with failures: the device gets the caller's data, in chunks.

#include "tests/fuzz/Fuzz.h"
#include "transport/MIDIByteStream.h"

#include <climits>

namespace {

using Access = TransportTestAccess;

constexpr int kChunk = 4096;

class Output
{
public:
    explicit Output(FuzzInput& fuzz) : fuzz(fuzz)
    {
        sim::useVirtualTime(fuzz.dword());
        sim::setSleepError(static_cast<int>(fuzz.below(100)) - 50);
        // Whenever the sender waits for a header, the device finishes one.
        sim::onCall("Sleep", [this](const sim::Call& call) {
            if (call.arguments[0] == 0)
                FUZZ_CHECK(sim::completeOutput(device) != nullptr);
        });
        FUZZ_CHECK(transport.openOutput(1) != nullptr);
    }

    ~Output()
    {
        transport.closeOutput();
        transport.Release();
    }

    void step()
    {
        sim::clearSent(device);
        Bytes bytes = fuzz.bytes(fuzz.flag() ? fuzz.byte() : fuzz.word() % 20'000);
        const unsigned kind = fuzz.below(6);
        const unsigned status = kind == 0 || fuzz.below(4) == 0 ? 0 : fuzz.byte();
        // Only a sender of one chunk can wait for a device that finishes late.
        const bool late = bytes.size() < kChunk && fuzz.flag();
        sim::setCompletion(device, late ? sim::Completion::Manual : sim::Completion::Inline);
        // It finishes its sends in order, and a sender must not wait for an earlier one.
        while (!late && sim::completeOutput(device)) {
        }

        failingCall = fuzz.below(4) == 0 ? 1 + fuzz.below(6) : 0;
        failing = fuzz.flag() ? "midiOutPrepareHeader" : "midiOutLongMsg";
        if (failingCall > 0)
            sim::failCall(failing, failingCall, MMSYSERR_NOMEM);

        unsigned char* const data = bytes.data();
        const int length = static_cast<int>(bytes.size());
        if (kind == 0)
            checkLong(transport.outputData(length, data), bytes, 0);
        else if (kind == 1)
            checkShort(data, length, status);
        else if (kind == 2 && status >= 0x80 && status <= 0xEF && length >= 2)
            checkShort(data, length, status, true);
        else if (kind == 2 && (status < 0x80 || status > 0xEF))
            checkLong(Access::outputData(transport, length, data, status), bytes, status);
        else if (kind == 3)
            checkRefused(data, status);
        else if (kind == 4)
            reopen();
        else
            checkLong(Access::outputLongData(transport, length, data, status), bytes, status);
        sim::clearFailures();
    }

private:
    void checkLong(bool result, const Bytes& bytes, unsigned status)
    {
        Bytes all = bytes;
        if (status != 0)
            all.insert(all.begin(), static_cast<unsigned char>(status));
        // Chunks until the failing call, if there are as many.
        std::size_t chunks = (all.size() + kChunk - 1) / kChunk;
        const bool fails = failingCall > 0 && failingCall <= chunks;
        FUZZ_CHECK(result == (!all.empty() && !fails));
        if (fails)
            chunks = failingCall - 1;

        const std::vector<sim::Sent> sent = sim::sent(device);
        FUZZ_CHECK(sent.size() == chunks);
        for (std::size_t i = 0; i < chunks; ++i) {
            const auto begin = all.begin() + static_cast<std::ptrdiff_t>(i) * kChunk;
            const auto end = begin + std::min<std::ptrdiff_t>(kChunk, all.end() - begin);
            FUZZ_CHECK(!sent[i].isShort && sent[i].bytes == Bytes(begin, end));
            FUZZ_CHECK(i == 0 || sent[i].time - sent[i - 1].time >= 100);
        }
    }

    /// Two bytes are read whatever the length, except for a length of 1.
    void checkShort(unsigned char* data, int length, unsigned status, bool byStatus = false)
    {
        if (length < 2)
            return;
        const bool result = byStatus ? Access::outputData(transport, length, data, status)
                                     : Access::outputShortData(transport, length, data, status);
        const std::vector<sim::Sent> sent = sim::sent(device);
        const auto first = static_cast<unsigned char>(status);
        if (isMIDIStatus(first) && midiMessageLength(first) == 0) { // what the device refuses
            FUZZ_CHECK(!result && sent.empty());
            return;
        }
        FUZZ_CHECK(result);
        const Bytes expected = {first, data[0], data[1], 0};
        FUZZ_CHECK(sent.size() == 1 && sent[0].isShort && sent[0].bytes == expected);
    }

    void checkRefused(unsigned char* data, unsigned status)
    {
        const int length = fuzz.flag() ? -1 - static_cast<int>(fuzz.word()) : INT_MIN;
        FUZZ_CHECK(!transport.outputData(length, data));
        FUZZ_CHECK(!transport.outputData(4, nullptr));
        FUZZ_CHECK(!Access::outputLongData(transport, length, data, status));
        FUZZ_CHECK(sim::sent(device).empty());
    }

    void reopen()
    {
        FUZZ_CHECK(transport.closeOutput() == 0);
        const unsigned char byte = 0;
        FUZZ_CHECK(!transport.outputData(1, &byte));
        for (const MIDIHDR& header : Access::device(transport).outHeaders)
            FUZZ_CHECK(header.dwFlags == 0);
        FUZZ_CHECK(transport.openOutput(1) != nullptr);
    }

    FuzzInput& fuzz;
    const int device = sim::addOutput(u"Out");
    MapAccessor accessor;
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    const char* failing = nullptr;
    unsigned failingCall = 0; // 0: none
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput fuzz(data, size);
    const FuzzRun run;
    Output output(fuzz);
    while (!fuzz.atEnd())
        output.step();
    return 0;
}
