// The way from an output of one process to an input of another: each input has a named pipe. A
// sender connects to it for a single piece, and is answered when the input has the piece.
#pragma once

#include "workbench/cable/System.h"
#include "workbench/device/InputPort.h"

#include <memory>
#include <string>
#include <thread>

namespace cable {

// One end of a pipe. Operations return when they are done, and fail if the other end closes or has
// sent a message of another length.
class PipeEnd
{
public:
    // Takes the handle over; false if there is none.
    bool open(HANDLE itsHandle);
    bool isOpen() const { return handle != nullptr; }
    void close() { handle.reset(); }

    void awaitSender();
    void disconnect() { DisconnectNamedPipe(handle.get()); }
    bool read(void* target, DWORD size);
    bool write(const void* source, DWORD size);

    // From any thread. Operations fail, also one that is under way, until allow().
    void stop() { SetEvent(stopped.get()); }
    void allow() { ResetEvent(stopped.get()); }
    // False if stopped.
    bool pause(DWORD milliseconds) const;

private:
    bool finish(BOOL begun, DWORD size);

    Handle handle;
    OVERLAPPED io = {};
    const Handle done{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const Handle stopped{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

// An input that another process has open, seen from the output that feeds it. Inputs are known by
// their position, from 1, so that processes may call them differently.
class RemoteInput
{
public:
    explicit RemoteInput(unsigned inputPosition);

    // Returns when the input has the piece. False if nobody listens, or after cancel().
    bool take(device::SourceId source, const MIDIPiece& piece);

    // From any thread: gives up what is under way, and what comes until allow().
    void cancel() { pipe.stop(); }
    void allow() { pipe.allow(); }

private:
    bool connect();

    const std::wstring name;
    PipeEnd pipe;
};

// Lets other processes reach an input, by a thread of its own. While another process listens at the
// same position this one does not; it takes over when the other has stopped.
class Listener
{
public:
    Listener(unsigned inputPosition, device::InputPort& itsInput);
    ~Listener() { stop(); }

    // Returns when nobody can reach the input through the pipe any more.
    void stop();

private:
    bool offer();
    void run();
    void serveSender(); // from its coming to its going

    const std::wstring name;
    device::InputPort& input;
    PipeEnd pipe;
    std::thread thread;
};

} // namespace cable
