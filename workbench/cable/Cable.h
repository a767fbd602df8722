// What a test does to the devices of the virtual MIDI cable, beyond WinMM.

#ifndef LUMORA_CABLE_H
#define LUMORA_CABLE_H

#include <windows.h>

enum {
    LUMORA_CABLE_UNPLUG,  // pulls it out; its open ports lose it
    LUMORA_CABLE_PLUG_IN, // it can be opened anew
    LUMORA_CABLE_UNLOAD,  // unloads its driver, with what is open
    LUMORA_CABLE_STALL    // an output of Windows 11's driver: sends run into their time-out
};

// FALSE if there is no such device, or WinMM has not loaded the cable yet.
inline BOOL controlCable(int command, bool input, UINT device)
{
    const HMODULE driver = GetModuleHandleW(L"winelumora.drv");
    const auto function = reinterpret_cast<BOOL(WINAPI*)(int, BOOL, UINT)>(
        reinterpret_cast<void (*)()>(GetProcAddress(driver, "LumoraCableControl")));
    return function ? function(command, input, device) : FALSE;
}

#endif
