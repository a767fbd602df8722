// An input that another process has open, seen from the output that feeds it.

#ifndef LUMORA_CABLE_REMOTEINPUT_H
#define LUMORA_CABLE_REMOTEINPUT_H

#include "ByteStream.h"
#include "System.h"

#include <string>
#include <utility>
#include <vector>

namespace cable {

// Used by the output's thread alone, except cancel() and allow().
class RemoteInput
{
public:
    explicit RemoteInput(unsigned inputPosition);

    // Collected into a frame; sent when the frame is full or by flush().
    void shortMessage(DWORD word);
    void sysEx(const SysExPiece& piece);
    void sysExBroken();

    // Returns when the other process has everything, or when it is lost: no process listens, or
    // cancel().
    void flush();

    // Ends a flush that is under way and makes further ones lose everything, until allow().
    void cancel() { SetEvent(cancelled_.get()); }
    void allow() { ResetEvent(cancelled_.get()); }

    // What flush() has sent and lost since the last call.
    struct Tally
    {
        ULONGLONG shortMessages;
        ULONGLONG bytes;
    };
    Tally takeSent() { return std::exchange(sent_, {}); }
    Tally takeLost() { return std::exchange(lost_, {}); }

private:
    enum class Outcome { Taken, Closed, Failed };

    void append(DWORD kind, DWORD flags, DWORD value);
    bool connect();
    Outcome transact();

    const std::wstring name_;
    Handle pipe_;
    const Handle done_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const Handle cancelled_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::vector<BYTE> frame_;
    Tally inFrame_ = {};
    Tally sent_ = {};
    Tally lost_ = {};
};

} // namespace cable

#endif
