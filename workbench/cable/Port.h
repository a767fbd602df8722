// What an open input and an open output have in common: the client's callback, called from a thread
// of the port's own, and the rules for the headers in its hands.

#ifndef LUMORA_CABLE_PORT_H
#define LUMORA_CABLE_PORT_H

#include "Cable.h"
#include "Description.h"
#include "System.h"

#include <deque>
#include <memory>
#include <vector>

namespace cable {

// Whom to call back; taken from the open message.
struct Client
{
    HMIDI handle;
    DWORD_PTR callback;
    DWORD_PTR instance;
    DWORD flags;

    void call(UINT message, DWORD_PTR parameter1, DWORD_PTR parameter2) const;
};

// The header's flags are also the client's, which reads them on any thread.
void markQueued(MIDIHDR* header);
void markDone(MIDIHDR* header);

DWORD prepareHeader(MIDIHDR* header, DWORD_PTR size);
DWORD unprepareHeader(MIDIHDR* header, DWORD_PTR size);
// Whether the header may be queued now: MMSYSERR_NOERROR or the answer to its sender.
DWORD checkHeader(const MIDIHDR* header, DWORD_PTR size);

// Never 0, never the same twice in a process.
DWORD_PTR nextPortId();

// Shared by its place in the port table, its thread, and whoever is delivering to it; freed with
// the last of them.
class Port : public std::enable_shared_from_this<Port>
{
public:
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    virtual ~Port() = default;

    // Distinct for every opening in the process, so that a call through a stale handle is
    // recognised.
    DWORD_PTR id() const { return id_; }

    // Announces the opening and starts the thread. False if there is none to be had.
    bool begin();

    // MIDIERR_STILLPLAYING while the client has headers queued. Waits as the port's WaitKind says.
    DWORD close();

    // True once a close was refused. Wine has freed the client's handle by then, so the next
    // opening may replace the port.
    bool abandoned();

    // Ends an abandoned port: no callback any more, its headers are not touched.
    void discard();

    LumoraCableCounters counters();

protected:
    enum class Direction { Input, Output };

    Port(Direction direction, const PortDescription& description, unsigned position,
         const Client& client);

    // Below here: `mutex_` is held by the caller unless it says otherwise.

    void post(UINT message, DWORD_PTR parameter1, DWORD parameter2);
    // Gives a header back: DONE with `bytes` recorded (inputs), then the callback, both on the
    // port's thread.
    void postHeader(UINT message, MIDIHDR* header, DWORD bytes, DWORD parameter2);
    // Forgets the messages posted and not yet called back; returns how many.
    size_t dropPosted(UINT message);
    void wakeThread() { wake_.notifyAll(); }
    // Ends a reset: every header posted is DONE when it returns, and called back already unless a
    // WaitKind::Close port's thread still has to do that. May let go of the lock.
    void finishReset(Lock& lock);
    DWORD postedHeaders() const;
    // Nothing is taken any more: the thread may be gone already.
    bool isClosing() const { return closing_; }
    size_t posted() const { return events_.size(); }

    // One step of the port's own work, on its thread, when no callback is due. Returns 0 if
    // something was done, otherwise the number of milliseconds to wait unless woken.
    virtual DWORD work(Lock& lock) = 0;
    virtual DWORD queuedHeaders() const = 0;
    virtual void endWork() = 0;     // no more input, nothing new to send
    virtual void discardWork() = 0; // what is waiting is forgotten
    virtual void opened() {}        // the thread runs; without the lock
    virtual void released() {}      // the port closes; without the lock

    const PortDescription& description() const { return description_; }
    unsigned position() const { return position_; }
    const char* directionName() const { return input_ ? "in" : "out"; }

    Mutex mutex_;
    LumoraCableCounters counters_ = {};

private:
    struct Event
    {
        UINT message;
        DWORD_PTR parameter1;
        DWORD parameter2;
        MIDIHDR* header; // null if the message brings none back
        DWORD bytes;
        bool given; // the header is DONE already and may be in use again
    };

    void run();
    void callBack(Lock& lock);
    void callBackFromHere(Lock& lock);
    void giveBack(Event& event);
    void callTimed(const Event& event);
    void logHeld();
    void logClose();
    bool onOwnThread() const { return GetCurrentThreadId() == threadId_; }

    const bool input_;
    const PortDescription& description_; // in the port table, which is never freed
    const unsigned position_;
    const Client client_;
    const DWORD_PTR id_;

    Condition wake_; // for the thread: something to do
    Condition idle_; // for those who wait for the thread
    std::deque<Event> events_;
    ULONGLONG posted_ = 0;   // events ever posted
    ULONGLONG finished_ = 0; // events whose callback has returned, or that were forgotten
    Handle thread_;
    DWORD threadId_ = 0;
    bool closing_ = false; // the thread ends when nothing is left to do
    bool silent_ = false;  // the thread ends without the closing callback
    bool ended_ = false;   // the thread has made its last callback
    bool abandoned_ = false;

    // How long each short message's callback took, in nanoseconds; touched by the thread only.
    std::vector<LONGLONG> held_;
};

} // namespace cable

#endif
