// What a driver's port is like.
#pragma once

#include "workbench/device/Threads.h"

#include <vector>

#include <mmsystem.h>

namespace device {

// Which call of a client waits for a callback in progress on another thread. Waiting for it in
// neither, as some drivers do, lets a callback outlive the close.
enum class DriverKind { WaitsInReset, WaitsInClose, WaitsInNeither };

// When a long message is finished.
enum class Completion {
    Manual, // by completeNext()
    Inline, // before the call returns, on the caller's thread
    Thread, // in order, by the port's own thread
};

// Something that an input plays by itself while it is started.
struct Generator
{
    enum class Kind { Flood, Dump };
    Kind kind;
    DWORD count;     // messages of a flood, bytes of a dump
    DWORD perSecond; // messages or bytes per second; 0: as fast as the client takes them
};

struct Settings
{
    DriverKind kind = DriverKind::WaitsInReset;
    // True: a thread of the port's own calls the client back. False: whoever lets data arrive, or
    // makes the call that returns a header, does.
    bool ownThread = false;
    Clock clock = steadyMicroseconds;

    // What the client is answered.
    MMRESULT capsResult = MMSYSERR_NOERROR;
    MMRESULT openResult = MMSYSERR_NOERROR;
    MMRESULT startResult = MMSYSERR_NOERROR;

    // Inputs
    DWORD split = 0; // bytes after which a buffer goes back although there is room; 0: when full
    DWORD hold = 0;  // milliseconds that SysEx bytes wait for a buffer before they are dropped
    std::vector<Generator> generators; // need a thread of the port's own
    DWORD repeat = 1;                  // rounds of all generators; 0: for ever

    // Outputs
    Completion completion = Completion::Inline;
    DWORD pace = 0; // bytes per second on the wire; 0: at once
};

} // namespace device
