// The driver's entry points: the messages of winmm.dll.
#include "workbench/cable/Cable.h"
#include "workbench/cable/EventLog.h"
#include "workbench/cable/Ports.h"
#include "workbench/cable/System.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <new>
#include <sstream>
#include <type_traits>

#include <mmddk.h>

// Exported by winmm.dll; older headers of MinGW leave it out.
extern "C" BOOL WINAPI DriverCallback(DWORD_PTR dwCallback, DWORD dwFlags, HDRVR hDevice,
                                      DWORD dwMsg, DWORD_PTR dwUser, DWORD_PTR dwParam1,
                                      DWORD_PTR dwParam2);

namespace cable {

namespace {

constexpr WORD kDriverVersion = 0x0100;
constexpr WORD kManufacturer = 0xFFFF; // none assigned

const char* direction(const PortDescription& description)
{
    return description.isInput ? "in" : "out";
}

// ---- Capabilities -------------------------------------------------------------------------------

MIDIINCAPSW capsOf(const InputPlace&)
{
    MIDIINCAPSW caps = {};
    caps.wPid = 1;
    return caps;
}

MIDIOUTCAPSW capsOf(const OutputPlace&)
{
    MIDIOUTCAPSW caps = {};
    caps.wPid = 2;
    caps.wTechnology = MOD_MIDIPORT;
    caps.wChannelMask = 0xFFFF;
    return caps;
}

template <class OpenPort>
DWORD copyCaps(const Place<OpenPort>& place, DWORD_PTR target, DWORD_PTR size)
{
    if (!target)
        return MMSYSERR_INVALPARAM;
    if (!place.present.load())
        return MMSYSERR_NODRIVER;
    if (place.description.capsResult != MMSYSERR_NOERROR)
        return place.description.capsResult;
    auto caps = capsOf(place);
    caps.wMid = kManufacturer;
    caps.vDriverVersion = kDriverVersion;
    std::copy(place.description.name.begin(), place.description.name.end(), caps.szPname);
    std::memcpy(reinterpret_cast<void*>(target), &caps, std::min<std::size_t>(size, sizeof caps));
    return MMSYSERR_NOERROR;
}

DWORD copyCounters(device::Port& port, DWORD_PTR target)
{
    auto* const counters = reinterpret_cast<LumoraCableCounters*>(target);
    if (!counters || counters->size != sizeof *counters)
        return MMSYSERR_INVALPARAM;
    const device::Counters found = port.counters();
    *counters = {sizeof *counters,      found.queuedBuffers,         found.delivered.shortMessages,
                 found.delivered.bytes, found.dropped.shortMessages, found.dropped.bytes};
    return MMSYSERR_NOERROR;
}

// ---- Open and close -----------------------------------------------------------------------------

// Calls a client of winmm.dll back, and notes how long its callback held the thread.
class Client
{
public:
    Client(const MIDIOPENDESC& request, DWORD itsFlags, const PortDescription& itsDescription,
           unsigned itsPosition)
        : handle(reinterpret_cast<HDRVR>(request.hMidi)), callback(request.dwCallback),
          instance(request.dwInstance), type(HIWORD(itsFlags & CALLBACK_TYPEMASK)),
          description(itsDescription), position(itsPosition)
    {}

    void operator()(UINT message, DWORD_PTR parameter1, DWORD parameter2)
    {
        if (message == MIM_CLOSE)
            logHeld();
        const auto start = std::chrono::steady_clock::now();
        DriverCallback(callback, type, handle, message, instance, parameter1, parameter2);
        if (description.logHeld && message == MIM_DATA)
            held.push_back(std::chrono::steady_clock::now() - start);
    }

private:
    using Duration = std::chrono::duration<double, std::micro>;

    // In microseconds. With a driver that waits for nothing the thread may still be adding one.
    void logHeld()
    {
        if (held.empty() || description.kind == device::DriverKind::WaitsInNeither)
            return;
        std::ostringstream line;
        line << "held" << std::fixed << std::setprecision(1);
        for (const Duration time : held)
            line << ' ' << time.count();
        logEvent("in", position, line.str());
    }

    const HDRVR handle;
    const DWORD_PTR callback;
    const DWORD_PTR instance;
    const DWORD type;
    const PortDescription& description; // in the port table, which is never freed
    const unsigned position;
    std::vector<Duration> held; // of each short message; the port's thread's own
};

// A port's thread may be inside this module at any time from now on, whatever winmm.dll thinks of
// it.
void keepLoaded()
{
    static HMODULE module = nullptr;
    static const BOOL kept =
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(&keepLoaded), &module);
    static_cast<void>(kept);
}

template <class OpenPort>
void logClose(const Place<OpenPort>& place, OpenPort& port)
{
    const device::Counters last = port.counters();
    logEvent(direction(place.description), place.position,
             "close dropped " + std::to_string(last.dropped.bytes) + " bytes " +
                 std::to_string(last.dropped.shortMessages) + " short");
}

template <class OpenPort>
DWORD openPort(Place<OpenPort>& place, DWORD_PTR user, const MIDIOPENDESC* request, DWORD flags)
{
    if (!request || !user)
        return MMSYSERR_INVALPARAM;
    if (place.description.openResult != MMSYSERR_NOERROR)
        return place.description.openResult;
    keepLoaded();

    if (!place.present.load())
        return MMSYSERR_NODRIVER;

    const bool isShared = place.description.kind == device::DriverKind::Windows11;
    std::shared_ptr<OpenPort> port;
    std::vector<std::shared_ptr<OpenPort>> refused;
    {
        const std::lock_guard<std::mutex> guard(place.mutex);
        // Lost ports keep their headers until the driver is unloaded.
        for (const auto& client : place.clients) {
            if (client->wasRefused() && !client->isUnplugged())
                refused.push_back(client);
            else if (!isShared && !client->isUnplugged())
                return MMSYSERR_ALLOCATED;
        }
        port =
            std::make_shared<OpenPort>(place.description, place.position,
                                       Client(*request, flags, place.description, place.position));
        place.clients.push_back(port);
    }
    for (const auto& client : refused) {
        client->abandon();
        logClose(place, *client);
        place.remove(client);
    }
    if (!port->begin(port)) {
        place.remove(port);
        return MMSYSERR_NOMEM;
    }
    logEvent(direction(place.description), place.position, "open");
    *reinterpret_cast<DWORD_PTR*>(user) = port->id;
    if (const DWORD after = place.description.unplugAfter) {
        std::thread([after, lost = std::weak_ptr<OpenPort>(port)] {
            std::this_thread::sleep_for(std::chrono::milliseconds(after));
            if (const auto open = lost.lock())
                open->unplug();
        }).detach();
    }
    return MMSYSERR_NOERROR;
}

template <class OpenPort>
DWORD closePort(Place<OpenPort>& place, const std::shared_ptr<OpenPort>& port)
{
    const DWORD result = port->close();
    if (result != MMSYSERR_NOERROR)
        return result;
    logClose(place, *port);
    place.remove(port);
    return MMSYSERR_NOERROR;
}

// As drivers do that leave it to their own thread to give the headers back.
void resetLater(const std::shared_ptr<OutputPort>& port, DWORD milliseconds)
{
    std::thread([milliseconds, late = std::weak_ptr<OutputPort>(port)] {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        if (const auto open = late.lock())
            open->reset();
    }).detach();
}

// ---- Messages -----------------------------------------------------------------------------------

// Counts the call and tells whether it is the one that the description lets fail.
bool fails(std::atomic<DWORD>& calls, DWORD failAt)
{
    return ++calls == failAt;
}

// The messages that both directions have.
struct Codes
{
    UINT count;
    UINT caps;
    UINT open;
    UINT close;
    UINT prepare;
    UINT unprepare;
    UINT reset;
};

constexpr Codes kInputCodes = {MIDM_GETNUMDEVS, MIDM_GETDEVCAPS, MIDM_OPEN, MIDM_CLOSE,
                               MIDM_PREPARE,    MIDM_UNPREPARE,  MIDM_RESET};
constexpr Codes kOutputCodes = {MODM_GETNUMDEVS, MODM_GETDEVCAPS, MODM_OPEN, MODM_CLOSE,
                                MODM_PREPARE,    MODM_UNPREPARE,  MODM_RESET};

DWORD ownMessage(InputPlace& place, InputPort& port, UINT message, DWORD_PTR parameter1,
                 DWORD_PTR parameter2)
{
    switch (message) {
    case MIDM_ADDBUFFER:
        if (fails(place.addBuffers, place.description.failAddBufferAt))
            return MMSYSERR_NOMEM;
        return port.addBuffer(reinterpret_cast<MIDIHDR*>(parameter1), parameter2);
    case MIDM_START:
        return port.start();
    case MIDM_STOP:
        return port.stop();
    default:
        return MMSYSERR_NOTSUPPORTED;
    }
}

DWORD ownMessage(OutputPlace& place, OutputPort& port, UINT message, DWORD_PTR parameter1,
                 DWORD_PTR parameter2)
{
    switch (message) {
    case MODM_DATA:
        return port.sendShort(static_cast<DWORD>(parameter1));
    case MODM_LONGDATA:
        if (fails(place.longs, place.description.failLongAt))
            return MMSYSERR_NOMEM;
        return port.sendLong(reinterpret_cast<MIDIHDR*>(parameter1), parameter2);
    default:
        return MMSYSERR_NOTSUPPORTED;
    }
}

template <class OpenPort>
DWORD answer(const std::vector<std::unique_ptr<Place<OpenPort>>>& places, const Codes& codes,
             UINT device, UINT message, DWORD_PTR user, DWORD_PTR parameter1, DWORD_PTR parameter2)
try {
    if (message == DRVM_INIT || message == DRVM_EXIT || message == DRVM_ENABLE ||
        message == DRVM_DISABLE)
        return MMSYSERR_NOERROR;
    if (message == codes.count)
        return static_cast<DWORD>(places.size());
    if (device >= places.size())
        return MMSYSERR_BADDEVICEID;

    Place<OpenPort>& place = *places[device];
    auto* const header = reinterpret_cast<MIDIHDR*>(parameter1);
    if (message == codes.caps)
        return copyCaps(place, parameter1, parameter2);
    if (message == codes.open)
        return openPort(place, user, reinterpret_cast<const MIDIOPENDESC*>(parameter1),
                        static_cast<DWORD>(parameter2));
    if (message == codes.prepare && fails(place.prepares, place.description.failPrepareAt))
        return MMSYSERR_NOMEM;
    // Of a device or of an open port alike.
    if (message == MODM_GETVOLUME && !place.description.isInput)
        return parameter1 ? MMSYSERR_NOTSUPPORTED : MMSYSERR_INVALPARAM;

    const std::shared_ptr<OpenPort> port = place.current(user);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    if (message == codes.prepare)
        return port->prepare(header, parameter2);
    if (message == codes.unprepare)
        return port->unprepare(header, parameter2);
    if (message == codes.close)
        return closePort(place, port);
    if (message == LUMORA_CABLE_GET_COUNTERS)
        return copyCounters(*port, parameter1);
    if (message == codes.reset) {
        if constexpr (std::is_same_v<OpenPort, OutputPort>) {
            logEvent("out", place.position, "reset");
            if (place.description.resetTakes != 0) {
                resetLater(port, place.description.resetTakes);
                return MMSYSERR_NOERROR;
            }
        }
        return port->reset();
    }
    return ownMessage(place, *port, message, parameter1, parameter2);
} catch (const std::bad_alloc&) {
    return MMSYSERR_NOMEM;
}

template <class OpenPort>
BOOL control(const std::vector<std::unique_ptr<Place<OpenPort>>>& places, int command, UINT device)
{
    if (device >= places.size())
        return FALSE;
    Place<OpenPort>& place = *places[device];
    if (command == LUMORA_CABLE_UNPLUG || command == LUMORA_CABLE_PLUG_IN)
        place.present.store(command == LUMORA_CABLE_PLUG_IN);
    for (const auto& port : place.current()) {
        if (command == LUMORA_CABLE_UNPLUG) {
            port->unplug();
        } else if (command == LUMORA_CABLE_UNLOAD) {
            port->unload();
            place.remove(port);
        } else if constexpr (std::is_same_v<OpenPort, OutputPort>) {
            if (command == LUMORA_CABLE_STALL || command == LUMORA_CABLE_GO_ON)
                port->stall(command == LUMORA_CABLE_STALL);
        }
    }
    return TRUE;
}

} // namespace

} // namespace cable

extern "C" {

__declspec(dllexport) DWORD CALLBACK midMessage(UINT device, UINT message, DWORD_PTR user,
                                                DWORD_PTR parameter1, DWORD_PTR parameter2)
{
    return cable::answer(cable::PortTable::instance().inputs, cable::kInputCodes, device, message,
                         user, parameter1, parameter2);
}

__declspec(dllexport) DWORD CALLBACK modMessage(UINT device, UINT message, DWORD_PTR user,
                                                DWORD_PTR parameter1, DWORD_PTR parameter2)
{
    return cable::answer(cable::PortTable::instance().outputs, cable::kOutputCodes, device, message,
                         user, parameter1, parameter2);
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

// For tests: see Cable.h.
__declspec(dllexport) BOOL WINAPI LumoraCableControl(int command, BOOL input, UINT device)
{
    const auto& table = cable::PortTable::instance();
    return input ? cable::control(table.inputs, command, device)
                 : cable::control(table.outputs, command, device);
}

} // extern "C"
