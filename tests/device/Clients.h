// Clients of the model's ports, which record what they are told.
#pragma once

#include "tests/contract/MidiRecorder.h"
#include "workbench/device/OutputPort.h"

#include <gtest/gtest.h>
#include <memory>

namespace device_test {

using contract::Buffer;
using contract::Bytes;
using contract::Recorder;
using device::Settings;

constexpr DWORD kNoteOn = 0x00644090;

// Real or, from the first advance on, as the test sets it.
struct Time
{
    static inline std::atomic<std::int64_t> set{-1};
    static std::int64_t now() { return set < 0 ? device::steadyMicroseconds() : set.load(); }
};

template <typename Handle>
device::Port::Callback callbackOf(Recorder& recorder, DWORD_PTR procedure)
{
    using Procedure = void(CALLBACK*)(Handle, UINT, DWORD_PTR, DWORD, DWORD);
    return [&recorder, call = reinterpret_cast<Procedure>(procedure)](UINT message, DWORD_PTR p1,
                                                                      DWORD p2) {
        call(nullptr, message, recorder.instance(), static_cast<DWORD>(p1), p2);
    };
}

class Input
{
public:
    // `also` is what the callback does besides recording.
    explicit Input(const Settings& settings,
                   std::function<void(const contract::Notice&)> also = nullptr)
        : port(std::make_shared<device::InputPort>(
              settings, callbackOf<HMIDIIN>(recorder, Recorder::inputCallback())))
    {
        recorder.also = std::move(also);
        EXPECT_TRUE(port->begin(port));
    }
    ~Input()
    {
        if (port->isOpen()) {
            port->reset();
            port->close();
        }
        // A thread of the port's own, for which no call has waited, frees the port when it ends.
        const std::weak_ptr<device::InputPort> last = port;
        port.reset();
        while (!last.expired())
            std::this_thread::yield();
    }

    MMRESULT add(Buffer& buffer)
    {
        recorder.expect(buffer.header());
        return port->addBuffer(buffer.header(), sizeof(MIDIHDR));
    }

    std::vector<Buffer*> giveBuffers(std::size_t count, std::size_t length)
    {
        std::vector<Buffer*> given;
        for (std::size_t i = 0; i < count; ++i) {
            buffers.push_back(std::make_unique<Buffer>(length));
            given.push_back(buffers.back().get());
            EXPECT_EQ(port->prepare(given.back()->header(), sizeof(MIDIHDR)), 0u);
            EXPECT_EQ(add(*given.back()), 0u);
        }
        return given;
    }

    std::vector<Buffer*> startWith(std::size_t count, std::size_t length)
    {
        const std::vector<Buffer*> given = giveBuffers(count, length);
        EXPECT_EQ(port->start(), 0u);
        return given;
    }

    Recorder recorder;
    std::vector<std::unique_ptr<Buffer>> buffers;
    std::shared_ptr<device::InputPort> port;
};

class Into : public device::Wire
{
public:
    explicit Into(device::InputPort* itsInput) : input(itsInput) {}
    bool connect() override { return !input || input->takesAtOnce(); }
    void take(const MIDIPiece& piece, const device::Pause& pause) override
    {
        if (input)
            input->take(source, piece, pause);
    }

private:
    device::InputPort* const input;
    const device::SourceId source = device::nextSourceId();
};

class Output
{
public:
    Output(const Settings& settings, device::InputPort* input)
        : port(std::make_shared<device::OutputPort>(
              settings, std::make_unique<Into>(input),
              callbackOf<HMIDIOUT>(recorder, Recorder::outputCallback())))
    {
        EXPECT_TRUE(port->begin(port));
    }
    ~Output()
    {
        port->reset();
        port->close();
    }

    Buffer* prepared(const Bytes& bytes)
    {
        buffers.push_back(std::make_unique<Buffer>(bytes));
        recorder.expect(buffers.back()->header());
        EXPECT_EQ(port->prepare(buffers.back()->header(), sizeof(MIDIHDR)), 0u);
        return buffers.back().get();
    }
    Buffer* begin(const Bytes& bytes)
    {
        Buffer* const buffer = prepared(bytes);
        EXPECT_EQ(port->sendLong(buffer->header(), sizeof(MIDIHDR)), 0u);
        return buffer;
    }
    // Waits until the message is done.
    void send(const Bytes& bytes)
    {
        const std::size_t before = recorder.notices(MOM_DONE).size();
        begin(bytes);
        EXPECT_GT(recorder.waitFor(MOM_DONE, before + 1).size(), before);
    }

    Recorder recorder;
    std::vector<std::unique_ptr<Buffer>> buffers;
    std::shared_ptr<device::OutputPort> port;
};

} // namespace device_test
