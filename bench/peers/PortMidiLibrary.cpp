// PortMidi. It has no callbacks: its user reads its queue, by its own examples in a timer callback
// of its companion PortTime every millisecond. Settings:
//
//   timer           that, with the default queue of 256 events
//   timer-large     that, with room for as many bytes of SysEx as we take in, 4 to an event
//   spinning        the default queue, read by a thread that never rests
//
// This release keeps addresses in 32 bits. It works where the heap lies below 4 GB, as it does in a
// small process on Wine.

#include "Library.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <portmidi.h>
#include <porttime.h>
#include <thread>
#include <windows.h>

#include <mmsystem.h>

namespace {

enum class Reader { Timer, Thread };

constexpr std::size_t kBytesPerEvent = 4;
constexpr int kDefaultQueue = 0; // it says: then the default is used
constexpr int kLargeQueue = int(kLargeBufferCount * kLargeBufferSize / kBytesPerEvent);

class PortMidiLibrary final : public Library
{
public:
    PortMidiLibrary(Observer& observer, Reader reader, int queue)
        : observer(observer), reader(reader), queue(queue)
    {
        Pm_Initialize();
    }

    ~PortMidiLibrary() override
    {
        PortMidiLibrary::closeInput();
        if (output)
            Pm_Close(output);
        Pm_Terminate();
    }

    bool openInput() override
    {
        if (reader == Reader::Timer)
            Pt_Start(1, &PortMidiLibrary::tick, this);
        PortMidiStream* opened = nullptr;
        if (Pm_OpenInput(&opened, firstDevice(true), nullptr, queue, nullptr, nullptr) != pmNoError)
            return false;
        input = opened;
        if (reader == Reader::Thread) {
            stopping = false;
            thread = std::thread([this] {
                while (!stopping)
                    takeEvents();
            });
        }
        return true;
    }

    void closeInput() override
    {
        stopping = true;
        if (thread.joinable())
            thread.join();
        if (reader == Reader::Timer && Pt_Started())
            Pt_Stop();
        // The last tick may still be running.
        PortMidiStream* const closing = input.exchange(nullptr);
        while (reading) {
        }
        if (closing)
            Pm_Close(closing);
    }

    bool openOutput() override
    {
        constexpr int noLatency = 0; // otherwise messages wait for their time stamps
        return Pm_OpenOutput(&output, firstDevice(false), nullptr, kDefaultQueue, nullptr, nullptr,
                             noLatency) == pmNoError;
    }

    bool send(const unsigned char* bytes, std::size_t length) override
    {
        if (bytes[0] == 0xF0) // it finds the end itself, and reads only
            return Pm_WriteSysEx(output, 0, const_cast<unsigned char*>(bytes)) == pmNoError;
        return length == 3 &&
               Pm_WriteShort(output, 0, Pm_Message(bytes[0], bytes[1], bytes[2])) == pmNoError;
    }

private:
    // By the name that WinMM gives it: PortMidi lists the system's MIDI mapper first.
    static PmDeviceID firstDevice(bool isInput)
    {
        MIDIINCAPSA input = {};
        MIDIOUTCAPSA output = {};
        midiInGetDevCapsA(0, &input, sizeof input);
        midiOutGetDevCapsA(0, &output, sizeof output);
        const std::string name = isInput ? input.szPname : output.szPname;
        for (PmDeviceID device = 0; device < Pm_CountDevices(); ++device) {
            const PmDeviceInfo* const info = Pm_GetDeviceInfo(device);
            if ((info->input != 0) == isInput && name == info->name)
                return device;
        }
        return pmNoDevice;
    }

    static void tick(PtTimestamp, void* self) { static_cast<PortMidiLibrary*>(self)->takeEvents(); }

    void takeEvents()
    {
        if (reading.exchange(true)) // a tick while the observer still works
            return;
        PmEvent events[256];
        while (PortMidiStream* const stream = input) {
            const int count = Pm_Read(stream, events, 256);
            if (count <= 0) { // none, or an overflow, which has emptied the queue
                inSysEx = inSysEx && count == 0;
                break;
            }
            std::for_each(events, events + count, [this](const PmEvent& event) { take(event); });
        }
        reading = false;
    }

    void take(const PmEvent& event)
    {
        const std::uint32_t word = static_cast<std::uint32_t>(event.message);
        unsigned char bytes[kBytesPerEvent];
        for (std::size_t i = 0; i < kBytesPerEvent; ++i)
            bytes[i] = static_cast<unsigned char>(word >> (8 * i));
        if (bytes[0] >= 0x80 && bytes[0] < 0xF0) {
            inSysEx = false;
            observer.receive(bytes, 3);
            return;
        }
        if (bytes[0] == 0xF0)
            inSysEx = true;
        if (!inSysEx)
            return; // the rest of a message whose beginning was lost
        const unsigned char* const end = std::find(bytes, bytes + kBytesPerEvent, 0xF7);
        const bool last = end != bytes + kBytesPerEvent;
        observer.receive(bytes, static_cast<std::size_t>(end - bytes) + (last ? 1 : 0));
        inSysEx = !last;
    }

    Observer& observer;
    const Reader reader;
    const int queue;
    std::atomic<PortMidiStream*> input{nullptr};
    PortMidiStream* output = nullptr;
    std::atomic<bool> stopping{false};
    std::atomic<bool> reading{false};
    bool inSysEx = false;
    std::thread thread;
};

} // namespace

std::unique_ptr<Library> makeLibrary(const std::string& setting, Observer& observer)
{
    if (setting == "timer")
        return std::make_unique<PortMidiLibrary>(observer, Reader::Timer, kDefaultQueue);
    if (setting == "timer-large")
        return std::make_unique<PortMidiLibrary>(observer, Reader::Timer, kLargeQueue);
    if (setting == "spinning")
        return std::make_unique<PortMidiLibrary>(observer, Reader::Thread, kDefaultQueue);
    return nullptr;
}
