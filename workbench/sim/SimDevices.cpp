// The simulated devices: which there are, what they are called, and their end.
#include "SimMidi.h"

#include <cstring>

namespace sim {
namespace internal {

namespace {

template <typename Handle>
int addDevice(const std::u16string& name, const DeviceOptions& options)
{
    auto& direction = directionOf(Handle{});
    const unsigned index = direction.deviceCount.load();
    if (index >= kMaximumDevices || options.maximumClients > kMaximumClients)
        stopWith("too many devices or clients");
    direction.devices[index].store(new Device<Handle>(name, options), std::memory_order_release);
    direction.deviceCount.store(index + 1, std::memory_order_release);
    return static_cast<int>(index);
}

template <typename Handle, typename Capabilities>
MMRESULT capabilities(UINT_PTR index, Capabilities* target, UINT size)
{
    if (!target)
        return MMSYSERR_INVALPARAM;
    const Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (device->options.capsResult != MMSYSERR_NOERROR)
        return device->options.capsResult;
    if (!device->options.fillsCaps)
        return MMSYSERR_NOERROR;
    Capabilities found{};
    found.vDriverVersion = 0x0100;
    std::copy(device->name.begin(), device->name.end(), found.szPname);
    std::memcpy(target, &found, std::min<std::size_t>(size, sizeof found));
    return MMSYSERR_NOERROR;
}

template <typename Handle>
void removeAll()
{
    auto& direction = directionOf(Handle{});
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
    auto& direction = directionOf(Handle{});
    std::size_t count = 0;
    const unsigned devices = direction.deviceCount.load(std::memory_order_acquire);
    for (unsigned i = 0; i < devices; ++i) {
        forEachClient(*direction.devices[i].load(std::memory_order_acquire),
                      [&](Port<Handle>& port) {
                          const std::lock_guard<std::mutex> guard(port.lock);
                          count += port.queue.size();
                      });
    }
    return static_cast<int>(count);
}

template <typename Handle>
void setKind(DriverKind kind)
{
    auto& direction = directionOf(Handle{});
    const unsigned devices = direction.deviceCount.load();
    for (unsigned i = 0; i < devices; ++i)
        direction.devices[i].load()->kind.store(kind, std::memory_order_relaxed);
}

} // namespace

void countMidi(Resources& resources)
{
    resources.inputPorts = inputDirection.openPorts.load(std::memory_order_relaxed);
    resources.outputPorts = outputDirection.openPorts.load(std::memory_order_relaxed);
    resources.inputBuffers = queuedHeaders<HMIDIIN>();
    resources.outputBuffers = queuedHeaders<HMIDIOUT>();
}

void resetMidi()
{
    endFloods();
    const unsigned outputs = outputDirection.deviceCount.load();
    for (unsigned i = 0; i < outputs; ++i)
        endDriver(*outputDirection.devices[i].load());
    removeAll<HMIDIIN>();
    removeAll<HMIDIOUT>();
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
    if (inputDirection.openPorts.load() > 0 || outputDirection.openPorts.load() > 0)
        stopWith("removeDevices: a port is open");
    resetMidi();
}

void setDriverKind(DriverKind kind)
{
    setKind<HMIDIIN>(kind);
    setKind<HMIDIOUT>(kind);
}

void setCompletion(int output, Completion completion)
{
    scriptedDevice<HMIDIOUT>(output).completion.store(completion, std::memory_order_relaxed);
}

} // namespace sim

using namespace sim::internal;

UINT midiInGetNumDevs(void)
{
    Entry entry(Function::midiInGetNumDevs);
    return entry.fails() ? entry.fail<UINT>() : entry.returns(inputDirection.deviceCount.load());
}

UINT midiOutGetNumDevs(void)
{
    Entry entry(Function::midiOutGetNumDevs);
    return entry.fails() ? entry.fail<UINT>() : entry.returns(outputDirection.deviceCount.load());
}

MMRESULT midiInGetDevCapsW(UINT_PTR device, LPMIDIINCAPSW caps, UINT size)
{
    return served(Entry(Function::midiInGetDevCapsW, nullptr, nullptr, device, size),
                  [&] { return capabilities<HMIDIIN>(device, caps, size); });
}

MMRESULT midiOutGetDevCapsW(UINT_PTR device, LPMIDIOUTCAPSW caps, UINT size)
{
    return served(Entry(Function::midiOutGetDevCapsW, nullptr, nullptr, device, size),
                  [&] { return capabilities<HMIDIOUT>(device, caps, size); });
}
