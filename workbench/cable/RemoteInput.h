// An input that another process has open, seen from the output that feeds it.
#pragma once

#include "workbench/cable/Frame.h"
#include "workbench/cable/System.h"
#include "workbench/device/Port.h"

#include <vector>

namespace cable {

// Used by the output's thread alone, except cancel() and allow().
class RemoteInput
{
public:
    explicit RemoteInput(unsigned inputPosition);

    // Collected into a frame; sent when the frame is full or by flush().
    void take(MIDIPiece piece);

    // Returns when the other process has everything, or when it is lost: no process listens, or
    // cancel().
    void flush();

    // Ends a flush that is under way and makes further ones lose everything, until allow().
    void cancel() { SetEvent(cancelled.get()); }
    void allow() { ResetEvent(cancelled.get()); }

    // By flush(), until somebody takes them away.
    device::Delivery sent;
    device::Delivery lost;

private:
    enum class Outcome { Taken, Closed, Failed };

    void append(const MIDIPiece& piece);
    bool connect();
    Outcome transact();

    const std::wstring name;
    Handle pipe;
    const Handle done{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const Handle cancelled{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::vector<BYTE> frame;
    device::Delivery inFrame;
};

} // namespace cable
