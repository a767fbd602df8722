// The script's devices: which there are, what arrives at their inputs, what their outputs sent.
#include "SimMidi.h"

#include <algorithm>

namespace sim {
namespace internal {

namespace {

// The source of all SysEx that the script lets arrive itself.
const device::SourceId kScript = device::nextSourceId();

std::int64_t microseconds()
{
    return std::int64_t(now()) * 1000;
}

template <typename Handle>
int addDevice(const std::u16string& name, const DeviceOptions& options)
{
    auto& direction = directionOf<Handle>;
    const unsigned index = direction.deviceCount.load();
    if (index >= kMaximumDevices)
        stopWith("too many devices");
    direction.devices[index].store(new Device<Handle>(name, options), std::memory_order_release);
    direction.deviceCount.store(index + 1, std::memory_order_release);
    return static_cast<int>(index);
}

template <typename Handle>
void removeAll()
{
    auto& direction = directionOf<Handle>;
    const std::size_t ports = direction.portCount.exchange(0);
    for (std::size_t i = 0; i < ports; ++i)
        delete direction.ports[i].exchange(nullptr);
    const unsigned devices = direction.deviceCount.exchange(0);
    for (unsigned i = 0; i < devices; ++i)
        delete direction.devices[i].exchange(nullptr);
    direction.openPorts.store(0);
}

template <typename Handle>
int queuedHeaders()
{
    std::size_t count = 0;
    forEachDevice<Handle>([&](Device<Handle>& device) {
        forEachClient(device, [&](Port<Handle>& port) { count += port.queued(); });
    });
    return static_cast<int>(count);
}

template <typename Handle>
void setKind(DriverKind kind)
{
    forEachDevice<Handle>([&](Device<Handle>& device) {
        const std::lock_guard<std::mutex> guard(device.opening);
        device.settings.kind = kind;
    });
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
void unload()
{
    forEachDevice<Handle>([](Device<Handle>& device) {
        forEachClient(device, [](Port<Handle>& port) { port.unload(); });
    });
}

} // namespace

template <typename Handle>
Device<Handle>::Device(const std::u16string& deviceName, const DeviceOptions& deviceOptions)
    : name(deviceName.substr(0, MAXPNAMELEN)), options(deviceOptions)
{
    settings.kind = options.kind;
    settings.completion = options.completion;
    settings.capsResult = options.capsResult;
    settings.windows11 = options.windows11;
    settings.clock = microseconds;
}

void Lead::noteShort(DWORD word)
{
    unsigned char bytes[4];
    for (unsigned i = 0; i < 4; ++i)
        bytes[i] = static_cast<unsigned char>(word >> (8 * i));
    note(true, bytes, sizeof bytes, nullptr);
}

void Lead::noteLong(const MIDIHDR& header)
{
    note(false, header.lpData, header.dwBufferLength, &header);
}

void Lead::note(bool isShort, const void* bytes, std::size_t length, const MIDIHDR* header)
{
    if (!device.options.keepSent)
        return;
    const auto* const first = static_cast<const unsigned char*>(bytes);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    device.sentMessages.push_back({isShort, {first, first + length}, now(), header});
}

void Lead::take(const MIDIPiece& piece)
{
    const int input = device.connectedInput.load(std::memory_order_acquire);
    if (input < 0)
        return;
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { port.take(source, piece); });
}

void countMidi(Resources& resources)
{
    resources.inputPorts = directionOf<HMIDIIN>.openPorts.load(std::memory_order_relaxed);
    resources.outputPorts = directionOf<HMIDIOUT>.openPorts.load(std::memory_order_relaxed);
    resources.inputBuffers = queuedHeaders<HMIDIIN>();
    resources.outputBuffers = queuedHeaders<HMIDIOUT>();
}

void resetMidi()
{
    endFloods();
    removeAll<HMIDIOUT>(); // their threads lead into the inputs
    removeAll<HMIDIIN>();
}

} // namespace internal

using namespace internal;

int addInput(const std::u16string& name, const DeviceOptions& options)
{
    return addDevice<HMIDIIN>(name, options);
}

int addOutput(const std::u16string& name, const DeviceOptions& options)
{
    return addDevice<HMIDIOUT>(name, options);
}

void removeDevices()
{
    if (directionOf<HMIDIIN>.openPorts.load() > 0 || directionOf<HMIDIOUT>.openPorts.load() > 0)
        stopWith("removeDevices: a port is open");
    resetMidi();
}

void setDriverKind(DriverKind kind)
{
    setKind<HMIDIIN>(kind);
    setKind<HMIDIOUT>(kind);
}

void unplugInput(int input)
{
    unplug<HMIDIIN>(input);
}

void unplugOutput(int output)
{
    unplug<HMIDIOUT>(output);
}

void plugInInput(int input)
{
    scriptedDevice<HMIDIIN>(input).present.store(true);
}

void plugInOutput(int output)
{
    scriptedDevice<HMIDIOUT>(output).present.store(true);
}

void unloadDriver()
{
    unload<HMIDIIN>();
    unload<HMIDIOUT>();
}

// ---- Input --------------------------------------------------------------------------------------

bool shortMessage(int input, DWORD packed)
{
    bool taken = false;
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { taken = port.shortMessage(packed) || taken; });
    return taken;
}

std::size_t sysEx(int input, const void* bytes, std::size_t length)
{
    std::size_t done = 0;
    const MIDIPiece whole{
        MIDIPiece::Kind::SysEx, 0, static_cast<const unsigned char*>(bytes), length, true, true};
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { done = std::max(done, port.sysEx(kScript, whole)); });
    return done;
}

MIDIHDR* returnBuffer(int input, DWORD bytesRecorded, const void* bytes, std::size_t length,
                      UINT code)
{
    Port<HMIDIIN>* const port = firstClient<HMIDIIN>(input);
    return port ? port->returnBuffer(code, bytesRecorded, bytes, length) : nullptr;
}

bool raw(int input, UINT message, DWORD parameter1, DWORD parameter2)
{
    Port<HMIDIIN>* const port = firstClient<HMIDIIN>(input);
    return port && port->raw(message, parameter1, parameter2);
}

bool isStarted(int input)
{
    bool started = false;
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { started = started || port.isStarted(); });
    return started;
}

std::size_t queuedBuffers(int input)
{
    std::size_t least = SIZE_MAX;
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { least = std::min(least, port.queued()); });
    return least == SIZE_MAX ? 0 : least;
}

// ---- Output -------------------------------------------------------------------------------------

void stallOutput(int output, bool on)
{
    forEachClient(scriptedDevice<HMIDIOUT>(output), [&](Port<HMIDIOUT>& port) { port.stall(on); });
}

void setCompletion(int output, Completion completion)
{
    Device<HMIDIOUT>& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.opening);
    device.settings.completion = completion;
    forEachClient(device, [&](Port<HMIDIOUT>& port) { port.setCompletion(completion); });
}

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
    forEachClient(scriptedDevice<HMIDIOUT>(output),
                  [&](Port<HMIDIOUT>& port) { count += port.queued(); });
    return count;
}

MIDIHDR* completeOutput(int output)
{
    MIDIHDR* header = nullptr;
    forEachClient(scriptedDevice<HMIDIOUT>(output),
                  [&](Port<HMIDIOUT>& port) { header = header ? header : port.completeNext(); });
    return header;
}

bool rawOutput(int output, UINT message, DWORD parameter1, DWORD parameter2)
{
    Port<HMIDIOUT>* const port = firstClient<HMIDIOUT>(output);
    return port && port->raw(message, parameter1, parameter2);
}

void connect(int output, int input)
{
    scriptedDevice<HMIDIIN>(input);
    scriptedDevice<HMIDIOUT>(output).connectedInput.store(input, std::memory_order_release);
}

} // namespace sim
