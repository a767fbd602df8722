// WinMM's functions, in front of the devices.
#include "SimMidi.h"

#include <algorithm>
#include <cstring>

namespace sim::internal {

namespace {

// A callback's parameters are 32 bits wide in the product.
template <typename Handle>
device::Port::Callback callbackTo(Handle handle, DWORD_PTR callback, DWORD_PTR instance)
{
    if (!callback)
        return nullptr;
    using Procedure = void(CALLBACK*)(Handle, UINT, DWORD_PTR, DWORD, DWORD);
    return [=, procedure = reinterpret_cast<Procedure>(callback)](
               UINT message, DWORD_PTR parameter1, DWORD parameter2) {
        procedure(handle, message, instance, static_cast<DWORD>(parameter1), parameter2);
    };
}

Port<HMIDIIN>* newPort(Device<HMIDIIN>& device, device::Port::Callback callback)
{
    return new Port<HMIDIIN>(device, std::move(callback));
}

Port<HMIDIOUT>* newPort(Device<HMIDIOUT>& device, device::Port::Callback callback)
{
    return new Port<HMIDIOUT>(device, std::make_unique<Lead>(device), std::move(callback));
}

template <typename Handle>
MMRESULT openPort(Handle* handle, UINT index, DWORD_PTR callback, DWORD_PTR instance, DWORD flags)
{
    if (!handle)
        return MMSYSERR_INVALPARAM;
    const DWORD type = flags & CALLBACK_TYPEMASK;
    if (type != CALLBACK_FUNCTION && type != CALLBACK_NULL)
        return MMSYSERR_INVALFLAG;
    if (type == CALLBACK_FUNCTION && callback == 0)
        return MMSYSERR_INVALPARAM;
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
        auto& direction = directionOf<Handle>;
        const std::size_t number = direction.portCount.fetch_add(1);
        if (number >= kMaximumPorts)
            stopWith("out of ports; reset() makes them anew");
        *handle = reinterpret_cast<Handle>(Kind<Handle>::firstHandle + number * 4);
        port = newPort(*device,
                       callbackTo(*handle, type == CALLBACK_FUNCTION ? callback : 0, instance));
        direction.ports[number].store(port, std::memory_order_release);
        direction.openPorts.fetch_add(1, std::memory_order_relaxed);
        place->store(port, std::memory_order_release);
    }
    port->begin();
    return MMSYSERR_NOERROR;
}

// The open port of a handle, or null.
template <typename Handle>
Port<Handle>* findPort(Handle handle)
{
    const std::uintptr_t value = reinterpret_cast<std::uintptr_t>(handle);
    const std::uintptr_t first = Kind<Handle>::firstHandle;
    if (value < first || (value - first) % 4 != 0 || (value - first) / 4 >= kMaximumPorts)
        return nullptr;
    Port<Handle>* const port =
        directionOf<Handle>.ports[(value - first) / 4].load(std::memory_order_acquire);
    return port && port->isOpen() ? port : nullptr;
}

// A call to an open port.
template <typename Handle, typename Work>
MMRESULT servedBy(Entry&& entry, Handle handle, Work work)
{
    return entry.serve([&]() -> MMRESULT {
        Port<Handle>* const port = findPort(handle);
        return port ? work(*port) : MMRESULT{MMSYSERR_INVALHANDLE};
    });
}

template <typename Handle, typename Capabilities>
MMRESULT capabilities(UINT_PTR index, Capabilities* target, UINT size)
{
    if (!target)
        return MMSYSERR_INVALPARAM;
    const Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (!device->present.load())
        return MMSYSERR_NODRIVER;
    if (device->settings.capsResult != MMSYSERR_NOERROR)
        return device->settings.capsResult;
    if (!device->options.fillsCaps)
        return MMSYSERR_NOERROR;
    Capabilities found{};
    found.vDriverVersion = 0x0100;
    std::copy(device->name.begin(), device->name.end(), found.szPname);
    std::memcpy(target, &found, std::min<std::size_t>(size, sizeof found));
    return MMSYSERR_NOERROR;
}

} // namespace

} // namespace sim::internal

using namespace sim::internal;

#define SIM_DEVICE_CALLS(In, Handle, Capabilities)                                                 \
    UINT midi##In##GetNumDevs(void)                                                                \
    {                                                                                              \
        return Entry(Function::midi##In##GetNumDevs).serve([] {                                    \
            return directionOf<Handle>.deviceCount.load();                                         \
        });                                                                                        \
    }                                                                                              \
    MMRESULT midi##In##GetDevCapsW(UINT_PTR device, Capabilities* found, UINT size)                \
    {                                                                                              \
        Entry entry(Function::midi##In##GetDevCapsW, nullptr, nullptr, device, size);              \
        return entry.serve([&] { return capabilities<Handle>(device, found, size); });             \
    }                                                                                              \
    MMRESULT midi##In##Open(Handle* handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,   \
                            DWORD flags)                                                           \
    {                                                                                              \
        Entry entry(Function::midi##In##Open, nullptr, nullptr, device, flags);                    \
        return entry.serve([&] { return openPort(handle, device, callback, instance, flags); });   \
    }

#define SIM_PORT_CALL(function, Handle, call)                                                      \
    MMRESULT function(Handle handle)                                                               \
    {                                                                                              \
        return servedBy(Entry(Function::function, handle), handle,                                 \
                        [](Port<Handle>& port) { return port.call; });                             \
    }

#define SIM_HEADER_CALL(function, Handle, call)                                                    \
    MMRESULT function(Handle handle, LPMIDIHDR header, UINT size)                                  \
    {                                                                                              \
        return servedBy(Entry(Function::function, handle, header, size), handle,                   \
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
    return servedBy(Entry(Function::midiOutShortMsg, handle, nullptr, message), handle,
                    [&](Port<HMIDIOUT>& port) { return port.sendShort(message); });
}
