// The driver's entry points: the messages of winmm.dll.

#include "PortTable.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <mmddk.h>

namespace cable {
namespace {

constexpr WORD kDriverVersion = 0x0100;
constexpr WORD kManufacturer = 0xFFFF; // none assigned
constexpr WORD kInputProduct = 1;
constexpr WORD kOutputProduct = 2;

template <class Caps>
DWORD copyCaps(const PortDescription& description, const Caps& caps, DWORD_PTR target,
               DWORD_PTR size)
{
    if (!target)
        return MMSYSERR_INVALPARAM;
    if (description.failCaps)
        return MMSYSERR_NODRIVER;
    std::memcpy(reinterpret_cast<void*>(target), &caps, std::min<size_t>(size, sizeof caps));
    return MMSYSERR_NOERROR;
}

template <class Caps>
Caps commonCaps(const PortDescription& description, WORD product)
{
    Caps caps = {};
    caps.wMid = kManufacturer;
    caps.wPid = product;
    caps.vDriverVersion = kDriverVersion;
    std::copy(description.name.begin(), description.name.end(), caps.szPname);
    return caps;
}

DWORD inputCaps(const InputPlace& place, DWORD_PTR target, DWORD_PTR size)
{
    return copyCaps(place.description, commonCaps<MIDIINCAPSW>(place.description, kInputProduct),
                    target, size);
}

DWORD outputCaps(const OutputPlace& place, DWORD_PTR target, DWORD_PTR size)
{
    auto caps = commonCaps<MIDIOUTCAPSW>(place.description, kOutputProduct);
    caps.wTechnology = MOD_MIDIPORT;
    caps.wChannelMask = 0xFFFF;
    return copyCaps(place.description, caps, target, size);
}

// A port's thread may be inside this module at any time from now on, whatever winmm.dll thinks of
// it.
void keepLoaded()
{
    static const bool kept = [] {
        HMODULE module = nullptr;
        return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN |
                                      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                                  reinterpret_cast<LPCWSTR>(&keepLoaded), &module) != FALSE;
    }();
    static_cast<void>(kept);
}

template <class OpenPort>
DWORD openPort(Place<OpenPort>& place, DWORD_PTR user, const MIDIOPENDESC* request, DWORD flags)
{
    if (!request || !user)
        return MMSYSERR_INVALPARAM;
    if (place.description.failOpen)
        return MMSYSERR_ALLOCATED;
    keepLoaded();

    const Lock lock(place.mutex);
    if (place.open) {
        if (!place.open->abandoned())
            return MMSYSERR_ALLOCATED;
        place.open->discard();
        place.open.reset();
    }
    const Client client{request->hMidi, request->dwCallback, request->dwInstance, flags};
    const auto port = std::make_shared<OpenPort>(place.description, place.position, client);
    if (!port->begin())
        return MMSYSERR_NOMEM;
    place.open = port;
    *reinterpret_cast<DWORD_PTR*>(user) = port->id();
    return MMSYSERR_NOERROR;
}

template <class OpenPort>
DWORD closePort(Place<OpenPort>& place, const std::shared_ptr<OpenPort>& port)
{
    const DWORD result = port->close();
    if (result != MMSYSERR_NOERROR)
        return result;
    const Lock lock(place.mutex);
    if (place.open == port)
        place.open.reset();
    return MMSYSERR_NOERROR;
}

DWORD copyCounters(Port& port, DWORD_PTR target)
{
    auto* counters = reinterpret_cast<LumoraCableCounters*>(target);
    if (!counters || counters->size != sizeof *counters)
        return MMSYSERR_INVALPARAM;
    *counters = port.counters();
    return MMSYSERR_NOERROR;
}

// Counts the call and tells whether it is the one that the description lets fail.
bool fails(std::atomic<DWORD>& calls, DWORD failAt)
{
    return ++calls == failAt;
}

DWORD inputMessage(DWORD device, UINT message, DWORD_PTR user, DWORD_PTR parameter1,
                   DWORD_PTR parameter2)
{
    switch (message) {
    case DRVM_INIT:
        PortTable::instance();
        return MMSYSERR_NOERROR;
    case DRVM_EXIT:
    case DRVM_ENABLE:
    case DRVM_DISABLE:
        return MMSYSERR_NOERROR;
    case MIDM_GETNUMDEVS:
        return PortTable::instance().inputCount();
    default:
        break;
    }

    InputPlace* place = PortTable::instance().input(device);
    if (!place)
        return MMSYSERR_BADDEVICEID;
    auto* header = reinterpret_cast<MIDIHDR*>(parameter1);
    switch (message) {
    case MIDM_GETDEVCAPS:
        return inputCaps(*place, parameter1, parameter2);
    case MIDM_OPEN:
        return openPort(*place, user, reinterpret_cast<const MIDIOPENDESC*>(parameter1),
                        static_cast<DWORD>(parameter2));
    case MIDM_PREPARE:
        return fails(place->prepares, place->description.failPrepareAt)
                   ? MMSYSERR_NOMEM
                   : prepareHeader(header, parameter2);
    case MIDM_UNPREPARE:
        return unprepareHeader(header, parameter2);
    default:
        break;
    }

    const std::shared_ptr<InputPort> port = place->current(user);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    switch (message) {
    case MIDM_CLOSE:
        return closePort(*place, port);
    case MIDM_ADDBUFFER:
        return fails(place->addBuffers, place->description.failAddBufferAt)
                   ? MMSYSERR_NOMEM
                   : port->addBuffer(header, parameter2);
    case MIDM_START:
        return place->description.failStart ? MMSYSERR_NOMEM : port->startInput();
    case MIDM_STOP:
        return port->stopInput();
    case MIDM_RESET:
        return port->reset();
    case LUMORA_CABLE_GET_COUNTERS:
        return copyCounters(*port, parameter1);
    default:
        return MMSYSERR_NOTSUPPORTED;
    }
}

DWORD outputMessage(DWORD device, UINT message, DWORD_PTR user, DWORD_PTR parameter1,
                    DWORD_PTR parameter2)
{
    switch (message) {
    case DRVM_INIT:
        PortTable::instance();
        return MMSYSERR_NOERROR;
    case DRVM_EXIT:
    case DRVM_ENABLE:
    case DRVM_DISABLE:
        return MMSYSERR_NOERROR;
    case MODM_GETNUMDEVS:
        return PortTable::instance().outputCount();
    default:
        break;
    }

    OutputPlace* place = PortTable::instance().output(device);
    if (!place)
        return MMSYSERR_BADDEVICEID;
    auto* header = reinterpret_cast<MIDIHDR*>(parameter1);
    switch (message) {
    case MODM_GETDEVCAPS:
        return outputCaps(*place, parameter1, parameter2);
    case MODM_OPEN:
        return openPort(*place, user, reinterpret_cast<const MIDIOPENDESC*>(parameter1),
                        static_cast<DWORD>(parameter2));
    case MODM_PREPARE:
        return fails(place->prepares, place->description.failPrepareAt)
                   ? MMSYSERR_NOMEM
                   : prepareHeader(header, parameter2);
    case MODM_UNPREPARE:
        return unprepareHeader(header, parameter2);
    default:
        break;
    }

    const std::shared_ptr<OutputPort> port = place->current(user);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    switch (message) {
    case MODM_CLOSE:
        return closePort(*place, port);
    case MODM_DATA:
        return port->sendShort(static_cast<DWORD>(parameter1));
    case MODM_LONGDATA:
        return fails(place->longs, place->description.failLongAt)
                   ? MMSYSERR_NOMEM
                   : port->sendLong(header, parameter2);
    case MODM_RESET:
        return port->reset();
    case LUMORA_CABLE_GET_COUNTERS:
        return copyCounters(*port, parameter1);
    default:
        return MMSYSERR_NOTSUPPORTED;
    }
}

} // namespace
} // namespace cable

extern "C" {

__declspec(dllexport) DWORD CALLBACK midMessage(UINT device, UINT message, DWORD_PTR user,
                                                DWORD_PTR parameter1, DWORD_PTR parameter2)
{
    try {
        return cable::inputMessage(device, message, user, parameter1, parameter2);
    } catch (const std::bad_alloc&) {
        return MMSYSERR_NOMEM;
    }
}

__declspec(dllexport) DWORD CALLBACK modMessage(UINT device, UINT message, DWORD_PTR user,
                                                DWORD_PTR parameter1, DWORD_PTR parameter2)
{
    try {
        return cable::outputMessage(device, message, user, parameter1, parameter2);
    } catch (const std::bad_alloc&) {
        return MMSYSERR_NOMEM;
    }
}

__declspec(dllexport) LRESULT CALLBACK
    DriverProc(DWORD_PTR driver, HDRVR handle, UINT message, LPARAM parameter1, LPARAM parameter2)
{
    switch (message) {
    case DRV_LOAD:
    case DRV_FREE:
    case DRV_OPEN:
    case DRV_CLOSE:
    case DRV_ENABLE:
    case DRV_DISABLE:
        return 1;
    default:
        return DefDriverProc(driver, handle, message, parameter1, parameter2);
    }
}

} // extern "C"
