// RtMidi. Settings:
//
//   callback        its user's function is called on the driver's thread
//   queue           a thread of the user's takes messages out of its queue and sleeps for 1 ms when
//                   there is none (its own example sleeps for 10)
//   callback-large, queue-large
//                   likewise, with setBufferSize() told to take our number and size of buffers, and
//                   a queue of more messages than any measurement sends

#include "Library.h"

#include <RtMidi.h>
#include <atomic>
#include <thread>
#include <vector>
#include <windows.h>

namespace {

constexpr unsigned kDefaultQueue = 100;
constexpr unsigned kLargeQueue = 200000;

class RtMidiLibrary final : public Library
{
public:
    RtMidiLibrary(Observer& observer, bool polled, bool large)
        : observer(observer), polled(polled),
          input(RtMidi::WINDOWS_MM, "bench", polled && large ? kLargeQueue : kDefaultQueue),
          output(RtMidi::WINDOWS_MM, "bench")
    {
        input.ignoreTypes(false, true, true); // SysEx is wanted
        if (large)
            input.setBufferSize(kLargeBufferSize, kLargeBufferCount);
        if (!polled)
            input.setCallback(&RtMidiLibrary::called, this);
    }

    ~RtMidiLibrary() override { stopPolling(); }

    bool openInput() override
    {
        input.openPort(0);
        if (polled) {
            stopping = false;
            poller = std::thread([this] { poll(); });
        }
        return input.isPortOpen();
    }

    void closeInput() override
    {
        stopPolling();
        input.closePort();
    }

    bool openOutput() override
    {
        output.openPort(0);
        return output.isPortOpen();
    }

    bool send(const unsigned char* bytes, std::size_t length) override
    {
        output.sendMessage(bytes, length);
        return true;
    }

private:
    static void called(double, std::vector<unsigned char>* message, void* self)
    {
        static_cast<RtMidiLibrary*>(self)->observer.receive(message->data(), message->size());
    }

    void poll()
    {
        std::vector<unsigned char> message;
        while (!stopping) {
            input.getMessage(&message);
            if (message.empty())
                Sleep(1);
            else
                observer.receive(message.data(), message.size());
        }
    }

    void stopPolling()
    {
        stopping = true;
        if (poller.joinable())
            poller.join();
    }

    Observer& observer;
    const bool polled;
    std::atomic<bool> stopping{false};
    std::thread poller;
    RtMidiIn input;
    RtMidiOut output;
};

} // namespace

std::unique_ptr<Library> makeLibrary(const std::string& setting, Observer& observer)
{
    const bool large = setting == "callback-large" || setting == "queue-large";
    const bool polled = setting == "queue" || setting == "queue-large";
    if (!large && !polled && setting != "callback")
        return nullptr;
    return std::make_unique<RtMidiLibrary>(observer, polled, large);
}
