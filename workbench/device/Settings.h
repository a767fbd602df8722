// What a driver's port is like.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include <windows.h>

#include <mmsystem.h>

namespace device {

// Microseconds since an arbitrary moment.
using Clock = std::int64_t (*)();

inline std::int64_t steadyMicroseconds()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

// Which call of a client waits for a callback in progress on another thread. Waiting for it in
// neither, as some drivers do, lets a callback outlive the close. Windows 11's own driver waits in
// all of them, and differs in more: see Windows11.
enum class DriverKind { WaitsInReset, WaitsInClose, WaitsInNeither, Windows11 };

// The driver that Windows 11 has below WinMM for every port since 2026. Any number of clients may
// open a port. Data that arrives is called back by a worker thread of the port, everything else
// inside the call that brings it about. A stop, reset or close inside a callback of the worker
// never returns: here it ends the program. Sends are over when they return, and a reset of an
// output does nothing; a call to a port that is sending waits, and holds up all ports' calls. An
// input that lost its device keeps its buffers, and refuses to close while it has some; the driver
// looks at them once more when it is unloaded.
struct Windows11
{
    // Milliseconds that the worker waits for a buffer before it throws the message away: at its F0
    // (and not at all after a message that found none), and within it.
    DWORD bufferAtStart = 1;
    DWORD bufferWithin = 10;
    // Milliseconds for each piece of a long message to be taken, before the send fails.
    DWORD sendPiece = 4000;

    // The driver's own switches. A removal is noticed, and from then on every call but the close
    // answers MMSYSERR_NODRIVER; else nothing tells, and sends run into their time-out.
    bool noticesRemoval = true;
    // Short messages do not wait to be taken.
    bool shortsDoNotWait = true;
    // Stop and reset still work after a removal, so that the port can be closed.
    bool cleansUpAfterRemoval = false;
    // What becomes of the header of a long send that fails.
    enum class FailedLong { StaysWithClient, DoneWithError, DoneWithSuccess };
    FailedLong failedLong = FailedLong::StaysWithClient;
};

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
    // True: a thread of the port's own calls the client back, save that it has been opened or
    // closed; an output needs Completion::Thread, too. False: whoever lets data arrive, or makes
    // the call that returns a header, does. Not of the Windows 11 kind.
    bool ownThread = false;
    Windows11 windows11;
    Clock clock = steadyMicroseconds;

    // What the client is answered.
    MMRESULT capsResult = MMSYSERR_NOERROR;
    MMRESULT openResult = MMSYSERR_NOERROR;

    // Inputs
    std::vector<Generator> generators; // need a thread of the port's own
    DWORD repeat = 1;                  // rounds of all generators; 0: for ever

    // Outputs
    Completion completion = Completion::Inline;
    DWORD pace = 0; // bytes per second on the wire; 0: at once
};

} // namespace device
