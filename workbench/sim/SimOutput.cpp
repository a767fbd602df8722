// Output drivers: when a send is finished, what was sent, and the lead to an input.
#include "SimMidi.h"

namespace sim {
namespace internal {

namespace {

void deliver(Device<HMIDIOUT>& device, const unsigned char* bytes, std::size_t length)
{
    const int input = device.connectedInput.load(std::memory_order_acquire);
    if (input < 0)
        return;
    std::vector<WireMessage> messages;
    {
        const std::lock_guard<std::mutex> guard(device.wireLock);
        messages = device.wire.parse(bytes, length);
    }
    for (const WireMessage& message : messages) {
        if (message.isShort)
            shortMessage(input, message.packed);
        else
            sysEx(input, message.bytes.data(), message.bytes.size());
    }
}

// Plays the oldest pending header of the port and reports it. The header stays queued while it
// plays, so a reset may take it away meanwhile and report it first.
MIDIHDR* completeNext(Port<HMIDIOUT>& port)
{
    const CallbackInProgress inProgress(port.callbacksInProgress);
    MIDIHDR* header = nullptr;
    std::vector<unsigned char> bytes;
    {
        const std::lock_guard<std::mutex> guard(port.lock);
        if (port.queue.empty())
            return nullptr;
        header = port.queue.front();
        if (port.device.connectedInput.load(std::memory_order_relaxed) >= 0)
            bytes.assign(header->lpData, header->lpData + header->dwBufferLength);
    }
    if (!bytes.empty())
        deliver(port.device, bytes.data(), bytes.size());
    {
        const std::lock_guard<std::mutex> guard(port.lock);
        if (port.queue.empty() || port.queue.front() != header)
            return nullptr;
        port.queue.pop_front();
        finish(*header);
    }
    port.call(MOM_DONE, low32(header), 0);
    return header;
}

void runDriver(Device<HMIDIOUT>& device)
{
    for (;;) {
        {
            std::unique_lock<std::mutex> guard(device.driverLock);
            device.driverWakes.wait(guard,
                                    [&] { return device.driverEnds || device.driverWork > 0; });
            if (device.driverEnds)
                return;
            --device.driverWork;
        }
        forEachClient(device, [](Port<HMIDIOUT>& port) { completeNext(port); });
    }
}

void wakeDriver(Device<HMIDIOUT>& device)
{
    const std::lock_guard<std::mutex> guard(device.driverLock);
    ++device.driverWork;
    if (!device.driver.joinable())
        device.driver = std::thread(runDriver, std::ref(device));
    device.driverWakes.notify_one();
}

} // namespace

void finishAsOrdered(Port<HMIDIOUT>& port)
{
    switch (port.device.completion.load(std::memory_order_relaxed)) {
    case Completion::Manual:
        break;
    case Completion::Inline:
        completeNext(port);
        break;
    case Completion::Thread:
        wakeDriver(port.device);
        break;
    }
}

void endDriver(Device<HMIDIOUT>& device)
{
    {
        const std::lock_guard<std::mutex> guard(device.driverLock);
        device.driverEnds = true;
        device.driverWakes.notify_one();
    }
    if (device.driver.joinable())
        device.driver.join();
}

void noteSent(Device<HMIDIOUT>& device, bool isShort, const void* bytes, std::size_t length,
              const MIDIHDR* header)
{
    if (!device.options.keepSent)
        return;
    const auto* const first = static_cast<const unsigned char*>(bytes);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    device.sentMessages.push_back({isShort, {first, first + length}, now(), header});
}

} // namespace internal

using namespace internal;

std::vector<Sent> sent(int output)
{
    Device<HMIDIOUT>& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    return device.sentMessages;
}

void clearSent(int output)
{
    Device<HMIDIOUT>& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    device.sentMessages.clear();
}

std::size_t pendingOutputs(int output)
{
    std::size_t count = 0;
    forEachClient(scriptedDevice<HMIDIOUT>(output), [&](Port<HMIDIOUT>& port) {
        const std::lock_guard<std::mutex> guard(port.lock);
        count += port.queue.size();
    });
    return count;
}

MIDIHDR* completeOutput(int output)
{
    MIDIHDR* header = nullptr;
    forEachClient(scriptedDevice<HMIDIOUT>(output), [&](Port<HMIDIOUT>& port) {
        if (!header)
            header = completeNext(port);
    });
    return header;
}

bool rawOutput(int output, UINT message, DWORD parameter1, DWORD parameter2)
{
    Port<HMIDIOUT>* const port = firstClient(scriptedDevice<HMIDIOUT>(output));
    if (!port)
        return false;
    const CallbackInProgress inProgress(port->callbacksInProgress);
    port->call(message, parameter1, parameter2);
    return true;
}

void connect(int output, int input)
{
    scriptedDevice<HMIDIIN>(input);
    scriptedDevice<HMIDIOUT>(output).connectedInput.store(input, std::memory_order_release);
}

} // namespace sim
