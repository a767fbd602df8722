// Clients of the model's ports, which record what they are told.
#pragma once

#include "tests/contract/MidiRecorder.h"
#include "workbench/device/OutputPort.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>

namespace device_test {

using contract::Buffer;
using contract::Bytes;
using contract::Notice;
using contract::Recorder;
using contract::sysEx;
using contract::waitAWhile;
using device::Completion;
using device::DriverKind;
using device::Settings;
using Messages = std::vector<Bytes>;

constexpr DWORD kNoteOn = 0x00644090;
constexpr DWORD kQueued = MHDR_PREPARED | MHDR_INQUEUE;
constexpr DWORD kDone = MHDR_PREPARED | MHDR_DONE;

// Real or, from the first advance on, as the test sets it.
struct Time
{
    static inline std::atomic<std::int64_t> set{-1};
    static std::int64_t now() { return set < 0 ? device::steadyMicroseconds() : set.load(); }
};

template <typename Port>
struct Client
{
    device::Port::Callback callback()
    {
        const std::shared_ptr<void> end(
            this, [](void* client) { static_cast<Client*>(client)->isPortGone = true; });
        return [this, end](UINT message, DWORD_PTR parameter1, DWORD parameter2) {
            recorder.take(message, static_cast<DWORD>(parameter1), parameter2);
        };
    }
    // What the callback does besides recording.
    void on(UINT message, const std::function<void()>& action)
    {
        recorder.also = [=](const Notice& notice) {
            if (notice.message == message)
                action();
        };
    }

    // With these bytes, or an empty one of this length.
    template <typename Content>
    Buffer& prepared(const Content& content)
    {
        Buffer& buffer = *buffers.emplace_back(std::make_unique<Buffer>(content));
        recorder.expect(buffer.header());
        EXPECT_EQ(port->prepare(buffer.header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
        return buffer;
    }

    std::atomic<bool> isPortGone{false}; // orders what follows behind the port's callbacks
    Recorder recorder;
    std::vector<std::unique_ptr<Buffer>> buffers;
    std::shared_ptr<Port> port;
};

struct Input : Client<device::InputPort>
{
    explicit Input(const Settings& settings)
    {
        port = std::make_shared<device::InputPort>(settings, callback());
        EXPECT_TRUE(port->begin(port));
    }
    ~Input()
    {
        if (port->isOpen()) {
            port->reset();
            port->close();
        }
        // A thread of the port's own, for which no call has waited, frees the port when it ends.
        port.reset();
        while (!isPortGone)
            std::this_thread::yield();
    }

    bool hear(DWORD word) { return port->takeNow(0, {MIDIPiece::Kind::Short, word}) > 0; }
    MMRESULT add(Buffer& buffer) { return port->addBuffer(buffer.header(), sizeof(MIDIHDR)); }

    std::vector<Buffer*> giveBuffers(std::size_t count, std::size_t length)
    {
        std::vector<Buffer*> given;
        for (std::size_t i = 0; i < count; ++i) {
            given.push_back(&prepared(length));
            EXPECT_EQ(add(*given.back()), MMSYSERR_NOERROR);
        }
        return given;
    }
    std::vector<Buffer*> startWith(std::size_t count, std::size_t length)
    {
        const std::vector<Buffer*> given = giveBuffers(count, length);
        EXPECT_EQ(port->start(), MMSYSERR_NOERROR);
        return given;
    }

    // The bytes of each buffer that came back so.
    Messages heard(UINT message)
    {
        Messages result;
        for (const Notice& notice : recorder.notices(message))
            result.push_back(notice.bytes);
        return result;
    }
};

struct Into : device::Wire
{
    explicit Into(device::InputPort* itsInput) : input(itsInput) {}
    bool take(const MIDIPiece& piece) override
    {
        if (input)
            input->take(source, piece);
        return input != nullptr;
    }

    device::InputPort* const input;
    const device::SourceId source = device::nextSourceId();
};

struct Output : Client<device::OutputPort>
{
    Output(const Settings& settings, device::InputPort* input)
    {
        port = std::make_shared<device::OutputPort>(settings, std::make_unique<Into>(input),
                                                    callback());
        EXPECT_TRUE(port->begin(port));
    }
    ~Output()
    {
        port->reset();
        port->close();
    }

    MMRESULT sendLong(Buffer& buffer) { return port->sendLong(buffer.header(), sizeof(MIDIHDR)); }
    Buffer& begin(const Bytes& bytes)
    {
        Buffer& buffer = prepared(bytes);
        EXPECT_EQ(sendLong(buffer), MMSYSERR_NOERROR);
        return buffer;
    }
    // Waits until the message is done.
    void send(const Bytes& bytes)
    {
        const std::size_t before = recorder.notices(MOM_DONE).size();
        begin(bytes);
        EXPECT_GT(recorder.waitFor(MOM_DONE, before + 1).size(), before);
    }
};

} // namespace device_test
