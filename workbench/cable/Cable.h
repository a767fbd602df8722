// What a test may ask the virtual MIDI cable beyond WinMM: its counters.
//
// Plain C, so that any client of WinMM can include it; the cable itself is reached through
// midiInMessage and midiOutMessage and needs no import library.

#ifndef LUMORA_CABLE_H
#define LUMORA_CABLE_H

#include <windows.h>

#include <mmsystem.h>

#ifdef __cplusplus
extern "C" {
#endif

// Counted from the opening of the port. Bytes are those of SysEx messages, a short message counts
// as one.
typedef struct LumoraCableCounters
{
    DWORD size;               // set by the caller to sizeof(LumoraCableCounters)
    DWORD queuedBuffers;      // headers that the port still owes its client
    ULONGLONG deliveredShort; // by an input to its client, by an output to an open input
    ULONGLONG deliveredBytes; // of an input: in the buffers called back
    ULONGLONG droppedShort;   // input: more than it keeps waiting; output: no input is open
    ULONGLONG droppedBytes;   // input: no buffer was queued; output: also no MIDI message
} LumoraCableCounters;

// midiInMessage or midiOutMessage with this code and the address of a LumoraCableCounters in the
// first parameter. MMSYSERR_INVALPARAM if the address is null or `size` is another.
#define LUMORA_CABLE_GET_COUNTERS 0x4C01

// What a test does to a device, by the function LumoraCableControl that winelumora.drv exports:
// controlCable() below finds it once WinMM has loaded the driver. FALSE if there is no such device.
enum {
    LUMORA_CABLE_UNPLUG,  // pulls it out; its open ports lose it
    LUMORA_CABLE_PLUG_IN, // it can be opened anew
    LUMORA_CABLE_UNLOAD,  // unloads its driver, with what is open
    LUMORA_CABLE_STALL,   // an output of Windows 11's driver: sends run into their time-out
    LUMORA_CABLE_GO_ON
};
typedef BOOL(WINAPI* LumoraCableControlFunction)(int command, BOOL input, UINT device);

#ifdef __cplusplus
}

inline BOOL controlCable(int command, bool input, UINT device)
{
    const HMODULE driver = GetModuleHandleW(L"winelumora.drv");
    const auto function = reinterpret_cast<LumoraCableControlFunction>(
        reinterpret_cast<void*>(GetProcAddress(driver, "LumoraCableControl")));
    return function ? function(command, input, device) : FALSE;
}
#endif

#endif
