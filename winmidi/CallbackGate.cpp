#include "winmidi/CallbackGate.h"

#include <windows.h>

#include <mmsystem.h>

// How long to wait for a callback, in milliseconds. It does almost nothing, so only one whose
// thread was killed takes that long.
static const DWORD kCallbackLimit = 1000;

std::atomic<CallbackGate*> CallbackGate::first{nullptr};

CallbackGate* CallbackGate::open(TWinMIDI* transport, TWinMIDIPrivate* device, void* dataEvent)
{
    CallbackGate* gate = first;
    while (gate && gate->taken.exchange(true))
        gate = gate->next;
    if (!gate) {
        gate = new CallbackGate;
        gate->next = first;
        while (!first.compare_exchange_weak(gate->next, gate)) {
        }
    }
    gate->device = device;
    gate->dataEvent = dataEvent;
    gate->transport = transport;
    return gate;
}

bool CallbackGate::close()
{
    transport = nullptr;
    if (!awaitCallbacks())
        return false;
    taken = false;
    return true;
}

bool CallbackGate::awaitCallbacks() const
{
    if (!isBusy())
        return true;
    const DWORD start = timeGetTime();
    while (isBusy() && timeGetTime() - start < kCallbackLimit)
        Sleep(1);
    return !isBusy();
}

void keepModuleLoaded()
{
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&keepModuleLoaded), &module);
}
