// An open input: what arrives is put into the client's buffers or called back as a short message,
// and the generators of the description play.

#ifndef LUMORA_CABLE_INPUTPORT_H
#define LUMORA_CABLE_INPUTPORT_H

#include "ByteStream.h"
#include "Port.h"

namespace cable {

class Listener;

// Distinguishes the senders that feed one input, so that their SysEx messages are not mixed into
// one. A sender uses what nextPortId() gave it.
using SourceId = DWORD_PTR;

// Lets a sender wait; false if it shall give up instead. Called without any lock of the input.
using Pause = std::function<bool(DWORD milliseconds)>;

class InputPort : public Port
{
public:
    InputPort(const PortDescription& description, unsigned position, const Client& client);
    ~InputPort() override;

    // The client's calls.
    DWORD addBuffer(MIDIHDR* header, DWORD_PTR size);
    DWORD startInput();
    DWORD stopInput();
    DWORD reset();

    // From the senders, on any thread. Nothing is heard while the input is stopped.
    void shortMessage(DWORD word);
    // May wait, by `pause`, as long as the description's `hold` says.
    void sysEx(SourceId source, SysExPiece piece, const Pause& pause);
    bool takesAtOnce() const { return description().hold == 0; }
    void sysExBroken(SourceId source);

private:
    DWORD work(Lock& lock) override;
    DWORD queuedHeaders() const override;
    void endWork() override;
    void discardWork() override;
    void opened() override;
    void released() override;

    // All with the lock held.
    DWORD timeStamp() const;
    bool accepts(SourceId source, const SysExPiece& piece);
    size_t fill(const SysExPiece& piece);
    void lose(const SysExPiece& piece);
    void endSysEx(UINT message);
    void giveBackFirst(UINT message);
    void stop();
    DWORD play();
    DWORD playDump(const Generator& dump, LONGLONG now);
    void nextGenerator();

    std::deque<MIDIHDR*> buffers_; // queued by the client; the first one may be partly filled
    DWORD filled_ = 0;             // bytes in the first buffer
    bool started_ = false;
    LONGLONG startedAt_ = 0;   // microseconds
    SourceId sysExSource_ = 0; // whose SysEx message is arriving, 0 = none

    // Where the generators are since the start.
    size_t generator_ = 0;
    DWORD round_ = 0;
    DWORD produced_ = 0;          // messages or bytes of the generator at work
    LONGLONG generatorSince_ = 0; // microseconds
    LONGLONG lastPlayed_ = 0;     // when a dump last found room in a buffer
    DWORD floodCounter_ = 0;
    DWORD dumpCounter_ = 0;

    std::unique_ptr<Listener> listener_;
};

} // namespace cable

#endif
