// The driver's entry points: the messages of winmm.dll.
#include "workbench/cable/Cable.h"
#include "workbench/cable/Ports.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <iomanip>
#include <sstream>
#include <thread>

#include <mmddk.h>

// Exported by winmm.dll; older headers of MinGW leave it out.
extern "C" BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice,
                                      DWORD dwMsg, DWORD_PTR dwUser, DWORD_PTR dwParam1,
                                      DWORD_PTR dwParam2);

namespace cable {

namespace {

DWORD copyCaps(const Place& place, DWORD_PTR target, DWORD_PTR size)
{
    if (!target)
        return MMSYSERR_INVALPARAM;
    if (!place.present.load())
        return MMSYSERR_NODRIVER;
    const PortDescription& description = place.description;
    if (description.capsResult != MMSYSERR_NOERROR)
        return description.capsResult;
    MIDIOUTCAPSW caps = {}; // an input's begin alike
    caps.wMid = 0xFFFF;     // none assigned
    caps.vDriverVersion = 0x0100;
    std::copy(description.name.begin(), description.name.end(), caps.szPname);
    if (!description.isInput) {
        caps.wTechnology = MOD_MIDIPORT;
        caps.wChannelMask = 0xFFFF;
    }
    const std::size_t known = description.isInput ? sizeof(MIDIINCAPSW) : sizeof caps;
    std::memcpy(reinterpret_cast<void*>(target), &caps, std::min<std::size_t>(size, known));
    return MMSYSERR_NOERROR;
}

// ---- Open and close -----------------------------------------------------------------------------

// Calls a client of winmm.dll back, and notes how long its callback held the thread.
device::Port::Callback callbackTo(const MIDIOPENDESC& client, DWORD flags, const Place& place)
{
    using Clock = std::chrono::steady_clock;
    using Microseconds = std::chrono::duration<double, std::micro>;
    return [&place, client, type = HIWORD(flags & CALLBACK_TYPEMASK),
            held = std::vector<Microseconds>()](UINT message, DWORD_PTR parameter1,
                                                DWORD parameter2) mutable {
        // With a driver that waits for nothing the thread may still be adding one.
        if (message == MIM_CLOSE && !held.empty() &&
            place.description.kind != device::DriverKind::WaitsInNeither) {
            std::ostringstream line;
            line << "held" << std::fixed << std::setprecision(1);
            for (const Microseconds time : held)
                line << ' ' << time.count();
            place.log(line.str());
        }
        const auto start = Clock::now();
        DriverCallback(client.dwCallback, type, reinterpret_cast<HDRVR>(client.hMidi), message,
                       client.dwInstance, parameter1, parameter2);
        if (place.description.logHeld && message == MIM_DATA)
            held.emplace_back(Clock::now() - start);
    };
}

DWORD openPort(Place& place, DWORD_PTR user, const MIDIOPENDESC& request, DWORD flags)
{
    if (place.description.openResult != MMSYSERR_NOERROR)
        return place.description.openResult;
    if (!place.present.load())
        return MMSYSERR_NODRIVER;
    // From now on a thread may be inside this module at any time, whatever winmm.dll thinks of it.
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&openPort), &module);

    const Place::Client port = place.open(callbackTo(request, flags, place));
    if (!port)
        return MMSYSERR_ALLOCATED;
    if (!port->begin(port)) {
        place.remove(port);
        return MMSYSERR_NOMEM;
    }
    place.log("open");
    *reinterpret_cast<DWORD_PTR*>(user) = reinterpret_cast<DWORD_PTR>(port.get());
    return MMSYSERR_NOERROR;
}

DWORD closePort(Place& place, const Place::Client& port)
{
    const DWORD result = port->close();
    // winmm.dll takes the client's handle away all the same.
    if (result == MIDIERR_STILLPLAYING && !port->isUnplugged())
        port->abandon();
    else if (result != MMSYSERR_NOERROR)
        return result;
    const device::Loss loss = port->loss();
    place.log("close dropped " + std::to_string(loss.bytes) + " bytes " +
              std::to_string(loss.shortMessages) + " short");
    place.remove(port);
    return result;
}

// ---- Messages -----------------------------------------------------------------------------------

DWORD inputMessage(device::InputPort& port, UINT message, MIDIHDR* header, DWORD_PTR size)
{
    switch (message) {
    case MIDM_ADDBUFFER:
        return port.addBuffer(header, size);
    case MIDM_START:
        return port.start();
    case MIDM_STOP:
        return port.stop();
    case MIDM_RESET:
        return port.reset();
    default:
        return MMSYSERR_NOTSUPPORTED;
    }
}

DWORD resetOutput(const Place& place, const std::shared_ptr<device::OutputPort>& port)
{
    place.log("reset");
    const DWORD late = place.description.resetTakes;
    if (late == 0)
        return port->reset();
    // As drivers do that leave it to their own thread to give the headers back.
    std::thread([late, output = std::weak_ptr<device::OutputPort>(port)] {
        std::this_thread::sleep_for(std::chrono::milliseconds(late));
        if (const auto open = output.lock())
            open->reset();
    }).detach();
    return MMSYSERR_NOERROR;
}

DWORD outputMessage(Place& place, const std::shared_ptr<device::OutputPort>& port, UINT message,
                    DWORD_PTR parameter1, DWORD_PTR size)
{
    switch (message) {
    case MODM_DATA:
        return port->sendShort(static_cast<DWORD>(parameter1));
    case MODM_LONGDATA:
        if (++place.longs == place.description.failLongAt)
            return MMSYSERR_NOMEM;
        return port->sendLong(reinterpret_cast<MIDIHDR*>(parameter1), size);
    case MODM_RESET:
        return resetOutput(place, port);
    default:
        return MMSYSERR_NOTSUPPORTED;
    }
}

// Inputs and outputs have different codes for the same.
DWORD answer(bool ofInput, UINT device, UINT message, DWORD_PTR user, DWORD_PTR parameter1,
             DWORD_PTR parameter2)
try {
    std::deque<Place>& all = places(ofInput);
    switch (message) {
    case DRVM_INIT:
    case DRVM_EXIT:
    case DRVM_ENABLE:
    case DRVM_DISABLE:
        return MMSYSERR_NOERROR;
    case MIDM_GETNUMDEVS:
    case MODM_GETNUMDEVS:
        return static_cast<DWORD>(all.size());
    default:
        break;
    }
    if (device >= all.size())
        return MMSYSERR_BADDEVICEID;
    Place& place = all[device];
    switch (message) {
    case MIDM_GETDEVCAPS:
    case MODM_GETDEVCAPS:
        return copyCaps(place, parameter1, parameter2);
    case MIDM_OPEN:
    case MODM_OPEN:
        return openPort(place, user, *reinterpret_cast<const MIDIOPENDESC*>(parameter1),
                        static_cast<DWORD>(parameter2));
    case MODM_GETVOLUME: // of a device or of an open port alike
        return parameter1 ? MMSYSERR_NOTSUPPORTED : MMSYSERR_INVALPARAM;
    default:
        break;
    }
    const Place::Client port = place.client(user);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    auto* const header = reinterpret_cast<MIDIHDR*>(parameter1);
    switch (message) {
    case MIDM_PREPARE:
    case MODM_PREPARE:
        return port->prepare(header, parameter2);
    case MIDM_UNPREPARE:
    case MODM_UNPREPARE:
        return port->unprepare(header, parameter2);
    case MIDM_CLOSE:
    case MODM_CLOSE:
        return closePort(place, port);
    default:
        break;
    }
    return place.description.isInput
               ? inputMessage(static_cast<device::InputPort&>(*port), message, header, parameter2)
               : outputMessage(place, std::static_pointer_cast<device::OutputPort>(port), message,
                               parameter1, parameter2);
} catch (const std::exception&) { // no memory, or no thread
    return MMSYSERR_NOMEM;
}

} // namespace

} // namespace cable

extern "C" {

__declspec(dllexport) DWORD CALLBACK midMessage(UINT device, UINT message, DWORD_PTR user,
                                                DWORD_PTR parameter1, DWORD_PTR parameter2)
{
    return cable::answer(true, device, message, user, parameter1, parameter2);
}

__declspec(dllexport) DWORD CALLBACK modMessage(UINT device, UINT message, DWORD_PTR user,
                                                DWORD_PTR parameter1, DWORD_PTR parameter2)
{
    return cable::answer(false, device, message, user, parameter1, parameter2);
}

__declspec(dllexport) LRESULT CALLBACK
    DriverProc(DWORD_PTR driver, HDRVR handle, UINT message, LPARAM parameter1, LPARAM parameter2)
{
    const bool isOfEveryDriver = message >= DRV_LOAD && message <= DRV_FREE;
    return isOfEveryDriver ? 1 : DefDriverProc(driver, handle, message, parameter1, parameter2);
}

// For tests: see Cable.h.
__declspec(dllexport) BOOL WINAPI LumoraCableControl(int command, BOOL input, UINT device)
{
    auto& places = cable::places(input != FALSE);
    if (device >= places.size())
        return FALSE;
    cable::Place& place = places[device];
    if (command == LUMORA_CABLE_UNPLUG || command == LUMORA_CABLE_PLUG_IN)
        place.present.store(command == LUMORA_CABLE_PLUG_IN);
    for (const auto& port : place.clients()) {
        if (command == LUMORA_CABLE_UNPLUG) {
            port->unplug();
        } else if (command == LUMORA_CABLE_UNLOAD) {
            port->unload();
            place.remove(port);
        } else if (command == LUMORA_CABLE_STALL && !input) {
            static_cast<device::OutputPort&>(*port).stall(true);
        }
    }
    return TRUE;
}

} // extern "C"
