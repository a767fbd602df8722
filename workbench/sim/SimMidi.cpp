// The simulated WinMM: its devices, its functions in front of the model of a driver's port, and
// what the script does to them.
#include "SimInternal.h"
#include "workbench/device/OutputPort.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>

namespace sim {
namespace internal {

namespace {

// ---- Devices and their ports --------------------------------------------------------------------

constexpr std::size_t kMaximumClients = 16;

template <typename Handle>
struct Port;

template <typename Handle>
struct Device
{
    Device(const std::u16string& deviceName, const DeviceOptions& options)
        : name(deviceName.substr(0, MAXPNAMELEN)), settings(options)
    {
        settings.clock = [] { return std::int64_t(now()) * 1000; };
    }

    const std::u16string name;
    device::Settings settings; // of the ports to be opened
    std::atomic<bool> present{true};
    std::array<std::atomic<Port<Handle>*>, kMaximumClients> clients{};

    // Outputs only.
    std::atomic<int> connectedInput{-1};
    std::mutex sentLock; // guards `sent`
    std::vector<Sent> sent;

    std::mutex opening; // taken to open and to close; guards `ports`
    // Open or not, until reset(), so that a late callback or a stale handle meets valid memory.
    std::vector<std::unique_ptr<Port<Handle>>> ports;
};

// By WinMM's identifier. Added and removed only while no other thread is inside the simulation.
template <typename Handle>
std::deque<Device<Handle>> devices;

template <typename Handle>
Device<Handle>* findDevice(UINT_PTR index)
{
    return index < devices<Handle>.size() ? &devices<Handle>[index] : nullptr;
}

template <typename Handle>
Device<Handle>& scriptedDevice(int index)
{
    auto* const device = index < 0 ? nullptr : findDevice<Handle>(unsigned(index));
    if (!device)
        stopWith("there is no device", std::to_string(index));
    return *device;
}

template <typename Action>
void forEachDevice(Action action)
{
    for (auto& input : devices<HMIDIIN>)
        action(input);
    for (auto& output : devices<HMIDIOUT>)
        action(output);
}

// Calls action(port) for each open client.
template <typename Handle, typename Action>
void forEachClient(Device<Handle>& device, Action action)
{
    for (auto& client : device.clients) {
        if (Port<Handle>* const port = client.load(std::memory_order_acquire))
            action(*port);
    }
}

// Null if the device is not open.
template <typename Handle>
Port<Handle>* firstClient(int index)
{
    Port<Handle>* first = nullptr;
    forEachClient(scriptedDevice<Handle>(index),
                  [&](Port<Handle>& port) { first = first ? first : &port; });
    return first;
}

// What one successful open made; its address is the client's handle.
template <typename Handle>
struct Port
    : std::conditional_t<std::is_same_v<Handle, HMIDIIN>, device::InputPort, device::OutputPort>
{
    Port(Device<Handle>& openedDevice, DWORD_PTR callback, DWORD_PTR instance);
    // While the object is still whole: the thread calls virtual functions of it.
    ~Port() override { this->endThread(); }

    void released() override
    {
        const std::lock_guard<std::mutex> guard(device.opening);
        for (auto& client : device.clients) {
            if (client.load(std::memory_order_relaxed) == this)
                client.store(nullptr, std::memory_order_relaxed);
        }
    }

    Device<Handle>& device;
};

// What an output sends, kept for sent() and led to the input that it is connected to.
class Lead : public device::Wire
{
public:
    explicit Lead(Device<HMIDIOUT>& itsOutput) : output(itsOutput) {}

    void noteShort(DWORD word) override { note(true, &word, sizeof word, nullptr); }
    void noteLong(const MIDIHDR& header) override
    {
        note(false, header.lpData, header.dwBufferLength, &header);
    }
    bool take(const MIDIPiece& piece) override
    {
        const int input = output.connectedInput.load(std::memory_order_acquire);
        if (input >= 0)
            forEachClient(scriptedDevice<HMIDIIN>(input),
                          [&](Port<HMIDIIN>& port) { port.take(source, piece); });
        return true;
    }

private:
    void note(bool isShort, const void* bytes, std::size_t length, const MIDIHDR* header)
    {
        const auto* const first = static_cast<const unsigned char*>(bytes);
        const std::lock_guard<std::mutex> guard(output.sentLock);
        output.sent.push_back({isShort, {first, first + length}, now(), header});
    }

    Device<HMIDIOUT>& output;
    const device::SourceId source = device::nextSourceId();
};

// ---- Opening ------------------------------------------------------------------------------------

// A callback's parameters are 32 bits wide in the product.
template <typename Handle>
device::Port::Callback callbackTo(Port<Handle>* port, DWORD_PTR callback, DWORD_PTR instance)
{
    if (!callback)
        return nullptr;
    using Procedure = void(CALLBACK*)(Handle, UINT, DWORD_PTR, DWORD, DWORD);
    return [=, procedure = reinterpret_cast<Procedure>(callback)](
               UINT message, DWORD_PTR parameter1, DWORD parameter2) {
        procedure(reinterpret_cast<Handle>(port), message, instance, static_cast<DWORD>(parameter1),
                  parameter2);
    };
}

template <>
Port<HMIDIIN>::Port(Device<HMIDIIN>& opened, DWORD_PTR callback, DWORD_PTR instance)
    : InputPort(opened.settings, callbackTo(this, callback, instance)), device(opened)
{}

template <>
Port<HMIDIOUT>::Port(Device<HMIDIOUT>& opened, DWORD_PTR callback, DWORD_PTR instance)
    : OutputPort(opened.settings, std::make_unique<Lead>(opened),
                 callbackTo(this, callback, instance)),
      device(opened)
{}

template <typename Handle>
MMRESULT openPort(Handle* handle, UINT index, DWORD_PTR callback, DWORD_PTR instance, DWORD flags)
{
    Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (!device->present.load())
        return MMSYSERR_NODRIVER;

    Port<Handle>* port = nullptr;
    {
        const std::lock_guard<std::mutex> guard(device->opening);
        const auto end = device->settings.kind == DriverKind::Windows11
                             ? device->clients.end()
                             : device->clients.begin() + 1;
        const auto place = std::find(device->clients.begin(), end, nullptr);
        if (place == end)
            return MMSYSERR_ALLOCATED;
        device->ports.push_back(std::make_unique<Port<Handle>>(
            *device, flags == CALLBACK_FUNCTION ? callback : 0, instance));
        port = device->ports.back().get();
        *handle = reinterpret_cast<Handle>(port);
        place->store(port, std::memory_order_release);
    }
    port->begin();
    return MMSYSERR_NOERROR;
}

// A call to an open port.
template <typename Handle, typename Work>
MMRESULT servedBy(Entry&& entry, Handle handle, Work work)
{
    const auto serve = [&]() -> MMRESULT {
        auto* const port = reinterpret_cast<Port<Handle>*>(handle);
        return port && port->isOpen() ? work(*port) : MMRESULT{MMSYSERR_INVALHANDLE};
    };
    return entry.serve(serve, MMSYSERR_ERROR);
}

template <typename Handle, typename Capabilities>
MMRESULT capabilities(UINT_PTR index, Capabilities* target, UINT size)
{
    const Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (!device->present.load())
        return MMSYSERR_NODRIVER;
    if (device->settings.capsResult != MMSYSERR_NOERROR)
        return device->settings.capsResult;
    Capabilities found{};
    std::copy(device->name.begin(), device->name.end(), found.szPname);
    std::memcpy(target, &found, std::min<std::size_t>(size, sizeof found));
    return MMSYSERR_NOERROR;
}

template <typename Handle>
int addDevice(const std::u16string& name, const DeviceOptions& options)
{
    devices<Handle>.emplace_back(name, options);
    return static_cast<int>(devices<Handle>.size() - 1);
}

// Each port by itself: the model may wait for a send in progress.
template <typename Handle>
void unplug(int index)
{
    Device<Handle>& device = scriptedDevice<Handle>(index);
    device.present.store(false);
    forEachClient(device, [](Port<Handle>& port) { port.unplug(); });
}

template <typename Handle>
void countPorts(int& ports, int& buffers)
{
    for (auto& device : devices<Handle>) {
        forEachClient(device, [&](Port<Handle>& port) {
            ++ports;
            buffers += static_cast<int>(port.queued());
        });
    }
}

} // namespace

void countMidi(Resources& resources)
{
    countPorts<HMIDIIN>(resources.inputPorts, resources.inputBuffers);
    countPorts<HMIDIOUT>(resources.outputPorts, resources.outputBuffers);
}

void resetMidi()
{
    devices<HMIDIOUT>.clear(); // their threads lead into the inputs
    devices<HMIDIIN>.clear();
}

} // namespace internal

// ---- The script ---------------------------------------------------------------------------------

using namespace internal;

int addInput(const std::u16string& name, const DeviceOptions& options)
{
    return addDevice<HMIDIIN>(name, options);
}

int addOutput(const std::u16string& name, const DeviceOptions& options)
{
    return addDevice<HMIDIOUT>(name, options);
}

void setDriverKind(DriverKind kind)
{
    forEachDevice([&](auto& device) { device.settings.kind = kind; });
}

void unplugInput(int input)
{
    unplug<HMIDIIN>(input);
}

void unplugOutput(int output)
{
    unplug<HMIDIOUT>(output);
}

void plugIn()
{
    forEachDevice([](auto& device) { device.present.store(true); });
}

void unloadDriver()
{
    forEachDevice([](auto& device) { forEachClient(device, [](auto& port) { port.unload(); }); });
}

bool shortMessage(int input, DWORD packed)
{
    bool taken = false;
    const MIDIPiece message{MIDIPiece::Kind::Short, packed};
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { taken = port.takeNow(0, message) > 0 || taken; });
    return taken;
}

std::size_t sysEx(int input, const void* bytes, std::size_t length)
{
    static const device::SourceId script = device::nextSourceId();
    std::size_t done = 0;
    const MIDIPiece whole{
        MIDIPiece::Kind::SysEx, 0, static_cast<const unsigned char*>(bytes), length, true, true};
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { done = std::max(done, port.takeNow(script, whole)); });
    return done;
}

MIDIHDR* returnBuffer(int input, DWORD bytesRecorded, const void* bytes, std::size_t length,
                      UINT code)
{
    auto* const port = firstClient<HMIDIIN>(input);
    return port ? port->returnBuffer(code, bytesRecorded, bytes, length) : nullptr;
}

bool raw(int input, UINT message, DWORD parameter1, DWORD parameter2)
{
    auto* const port = firstClient<HMIDIIN>(input);
    return port && port->raw(message, parameter1, parameter2);
}

std::size_t queuedBuffers(int input)
{
    auto* const port = firstClient<HMIDIIN>(input);
    return port ? port->queued() : 0;
}

void stallOutput(int output, bool on)
{
    if (auto* const port = firstClient<HMIDIOUT>(output))
        port->stall(on);
}

void setCompletion(int output, Completion completion)
{
    auto& device = scriptedDevice<HMIDIOUT>(output);
    device.settings.completion = completion;
    forEachClient(device, [&](Port<HMIDIOUT>& port) { port.setCompletion(completion); });
}

std::vector<Sent> sent(int output)
{
    auto& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    return device.sent;
}

void clearSent(int output)
{
    auto& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    device.sent.clear();
}

MIDIHDR* completeOutput(int output)
{
    auto* const port = firstClient<HMIDIOUT>(output);
    return port ? port->completeNext() : nullptr;
}

bool rawOutput(int output, UINT message, DWORD parameter1, DWORD parameter2)
{
    auto* const port = firstClient<HMIDIOUT>(output);
    return port && port->raw(message, parameter1, parameter2);
}

void connect(int output, int input)
{
    scriptedDevice<HMIDIOUT>(output).connectedInput.store(input, std::memory_order_release);
}

// ---- Flood --------------------------------------------------------------------------------------

Flood::Flood(int input, unsigned sysExEvery, std::size_t sysExLength)
    : thread([=] {
          for (DWORD n = 0; !stopping.load(std::memory_order_relaxed); ++n) {
              if (n % sysExEvery != 0) {
                  report.shortMessages += shortMessage(input, device::floodWord(n));
                  continue;
              }
              auto* const port = firstClient<HMIDIIN>(input);
              if (!port || port->room(sysExLength) < sysExLength)
                  continue;
              const std::vector<unsigned char> bytes = floodSysEx(n, sysExLength);
              report.sysExMessages += sysEx(input, bytes.data(), sysExLength) == sysExLength;
          }
      })
{}

FloodReport Flood::stop()
{
    stopping.store(true, std::memory_order_relaxed);
    if (thread.joinable())
        thread.join();
    return report;
}

std::vector<unsigned char> floodSysEx(std::uint64_t n, std::size_t length)
{
    std::vector<unsigned char> bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = device::dumpByte(DWORD(i), DWORD(length), DWORD(n));
    for (unsigned i = 0; i < 4; ++i)
        bytes[2 + i] = static_cast<unsigned char>(n >> (7 * i) & 0x7F);
    return bytes;
}

} // namespace sim

// ---- WinMM's functions --------------------------------------------------------------------------

using namespace sim::internal;

#define SIM_DEVICE_CALLS(In, Handle, Capabilities)                                                 \
    UINT midi##In##GetNumDevs(void)                                                                \
    {                                                                                              \
        return Entry(SIM_FUNCTION(midi##In##GetNumDevs)).serve([] {                                \
            return static_cast<UINT>(devices<Handle>.size());                                      \
        });                                                                                        \
    }                                                                                              \
    MMRESULT midi##In##GetDevCapsW(UINT_PTR device, Capabilities* found, UINT size)                \
    {                                                                                              \
        Entry entry(SIM_FUNCTION(midi##In##GetDevCapsW), nullptr, nullptr, device, size);          \
        const auto serve = [&] { return capabilities<Handle>(device, found, size); };              \
        return entry.serve(serve, MMSYSERR_ERROR);                                                 \
    }                                                                                              \
    MMRESULT midi##In##Open(Handle* handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,   \
                            DWORD flags)                                                           \
    {                                                                                              \
        Entry entry(SIM_FUNCTION(midi##In##Open), nullptr, nullptr, device, flags);                \
        const auto serve = [&] { return openPort(handle, device, callback, instance, flags); };    \
        return entry.serve(serve, MMSYSERR_ERROR);                                                 \
    }

#define SIM_PORT_CALL(function, Handle, call)                                                      \
    MMRESULT function(Handle handle)                                                               \
    {                                                                                              \
        return servedBy(Entry(SIM_FUNCTION(function), handle), handle,                             \
                        [](Port<Handle>& port) { return port.call; });                             \
    }

#define SIM_HEADER_CALL(function, Handle, call)                                                    \
    MMRESULT function(Handle handle, LPMIDIHDR header, UINT size)                                  \
    {                                                                                              \
        return servedBy(Entry(SIM_FUNCTION(function), handle, header, size), handle,               \
                        [&](Port<Handle>& port) { return port.call(header, size); });              \
    }

SIM_DEVICE_CALLS(In, HMIDIIN, MIDIINCAPSW)
SIM_DEVICE_CALLS(Out, HMIDIOUT, MIDIOUTCAPSW)
SIM_PORT_CALL(midiInClose, HMIDIIN, close())
SIM_PORT_CALL(midiInStart, HMIDIIN, start())
SIM_PORT_CALL(midiInStop, HMIDIIN, stop())
SIM_PORT_CALL(midiInReset, HMIDIIN, reset())
SIM_PORT_CALL(midiOutClose, HMIDIOUT, close())
SIM_PORT_CALL(midiOutReset, HMIDIOUT, reset())
SIM_HEADER_CALL(midiInPrepareHeader, HMIDIIN, prepare)
SIM_HEADER_CALL(midiInUnprepareHeader, HMIDIIN, unprepare)
SIM_HEADER_CALL(midiInAddBuffer, HMIDIIN, addBuffer)
SIM_HEADER_CALL(midiOutPrepareHeader, HMIDIOUT, prepare)
SIM_HEADER_CALL(midiOutUnprepareHeader, HMIDIOUT, unprepare)
SIM_HEADER_CALL(midiOutLongMsg, HMIDIOUT, sendLong)

MMRESULT midiOutShortMsg(HMIDIOUT handle, DWORD message)
{
    return servedBy(Entry(SIM_FUNCTION(midiOutShortMsg), handle, nullptr, message), handle,
                    [&](Port<HMIDIOUT>& port) { return port.sendShort(message); });
}
