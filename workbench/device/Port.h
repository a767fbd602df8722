// What an open input and an open output have in common: the client's callback, who makes it and who
// waits for it, and the closing.
#pragma once

#include "transport/MIDIByteStream.h"
#include "workbench/device/Header.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>

namespace device {

// Bytes are those of SysEx messages, a short message counts as one.
struct Delivery
{
    void count(const MIDIPiece& piece)
    {
        shortMessages += piece.kind == MIDIPiece::Kind::Short ? 1 : 0;
        bytes += piece.length;
    }
    Delivery& operator+=(const Delivery& other)
    {
        shortMessages += other.shortMessages;
        bytes += other.bytes;
        return *this;
    }

    std::uint64_t shortMessages = 0;
    std::uint64_t bytes = 0;
};

// Counted from the opening.
struct Counters
{
    DWORD queuedBuffers = 0; // headers that the port still owes its client
    Delivery delivered;
    Delivery dropped;
};

class Port
{
public:
    using Callback = std::function<void(UINT message, DWORD_PTR parameter1, DWORD parameter2)>;

    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    virtual ~Port();

    // Announces the opening, and starts the thread of a port that has one; `owner` keeps the port
    // alive for it. False if there is none to be had.
    bool begin(std::shared_ptr<void> owner = nullptr);

    // MIDIERR_STILLPLAYING while the client has headers queued. Waits as the kind says; made inside
    // a callback, it waits for nothing.
    MMRESULT close();
    bool isOpen() const { return open.load(); }

    MMRESULT prepare(MIDIHDR* header, DWORD_PTR size);
    MMRESULT unprepare(MIDIHDR* header, DWORD_PTR size);

    // The device is pulled out: nothing arrives and nothing is taken any more. The Windows 11 kind
    // waits for a send in progress to tell its ports of that.
    void unplug();
    bool isUnplugged() const { return unplugged.load(); }
    // Windows 11's driver is unloaded with the port still open: it looks at the first header that
    // it kept, hands it back if it holds bytes, and closes the port, on this thread.
    void unload();

    // True once a close was refused. Where that takes the client's handle away all the same, the
    // next opening may replace the port.
    bool wasRefused();
    // Ends such a port: no callback any more, its headers are not touched.
    void abandon();

    void setKind(DriverKind kind) { driverKind.store(kind, std::memory_order_relaxed); }
    Counters counters();
    // Headers in the port's queue.
    std::size_t queued();
    // Calls the client back with anything. False if the port is closed.
    bool raw(UINT message, DWORD parameter1, DWORD parameter2);

protected:
    struct Messages
    {
        UINT open;
        UINT close;
    };
    // Something to tell the client.
    struct Notice
    {
        UINT message;
        DWORD_PTR parameter1;
        DWORD parameter2;
        MIDIHDR* header = nullptr; // that comes back
        DWORD bytes = 0;           // that it holds
        bool given = false;        // the header is DONE already and may be in use again
    };
    using Notices = std::deque<Notice>;

    // Counts a callback for as long as it runs. Constructed before the port is looked at, so that
    // whoever stops the port and then waits for the count cannot miss a callback that saw it
    // running.
    class InProgress
    {
    public:
        explicit InProgress(Port& port, std::memory_order order = std::memory_order_seq_cst);
        ~InProgress();
        InProgress(const InProgress&) = delete;
        InProgress& operator=(const InProgress&) = delete;

        // For the callbacks that a port makes inside a call of the client: counting them must not
        // order that call behind callbacks which it does not wait for.
        static constexpr std::memory_order kUnordered = std::memory_order_relaxed;

    private:
        friend class Port;
        std::atomic<int>& count;
        InProgress* const outer; // of this thread
        const bool ofArrival;    // not inside a call of the client
    };

    Port(const Settings& settings, Messages messages, Callback callback);

    DriverKind kind() const { return driverKind.load(std::memory_order_relaxed); }
    bool isWindows11() const { return kind() == DriverKind::Windows11; }
    // At the head of every call to a port of the Windows 11 kind: takes the lock of all ports and
    // inside it the port's. Whoever holds the port's, as a send does, so holds up every call to any
    // port. MMSYSERR_NODRIVER once the port knows that it is removed.
    MMRESULT lookUp(bool alsoRemoved = false);
    // Until only those callbacks are left that the calling thread itself is inside of. Without the
    // lock.
    // False if that took longer.
    bool waitForOthers(std::chrono::milliseconds limit = std::chrono::hours(1000));

    // Below here `lock` is held; it is let go while the client is called back from here.

    static Notice noticeOf(UINT message, MIDIHDR* header, DWORD bytes, DWORD parameter2);
    // Tells what arrived.
    void tell(Lock& held, Notice notice);
    // Tells what a call of the client brings about; one of a reset returns as the kind says.
    void conclude(Lock& held, Notices due, bool isReset);
    // Forgets the notices not yet called back; returns how many.
    std::size_t dropNotices(UINT message);
    std::size_t waitingNotices() const { return notices.size(); }
    void call(UINT message, DWORD_PTR parameter1, DWORD parameter2) const;

    bool startThread(std::shared_ptr<void> owner);
    bool hasThread() const { return thread.joinable(); }
    // For the destructors of those that work() belongs to. Waits for the thread, unless that is the
    // one that frees the port.
    void endThread();
    void wakeThread() { wake.notifyAll(); }
    bool onOwnThread() const { return threadId.load() == std::this_thread::get_id(); }

    // One step of the port's own work, on its thread, when no callback is due. Returns 0 if
    // something was done, otherwise the number of milliseconds to wait unless woken.
    virtual DWORD work(Lock& held) = 0;
    virtual DWORD queuedHeaders() const = 0;
    virtual void endWork() = 0;      // no more input, nothing new to send
    virtual void discardWork() = 0;  // what is waiting is forgotten
    virtual void released() {}       // the port is closed for the world; without the lock
    virtual void touchKept(Lock&) {} // the headers of a port whose driver is unloaded

    const Settings settings;
    std::recursive_mutex portLock; // of the Windows 11 kind; taken before `lock`
    Mutex lock;
    Counters tally;
    std::atomic<std::uint64_t> shortsCalled{0}; // by whoever lets them arrive, without the lock

private:
    void run();
    void announce(UINT message);
    void callBack(Lock& held, Notice notice);
    void callAll(Lock& held, Notices& source);
    void giveBack(Notice& notice);
    DWORD headersInNotices() const;

    const Messages messages;
    const Callback callback;
    std::atomic<DriverKind> driverKind;
    std::atomic<bool> open{true};
    std::atomic<int> callbacks{0};
    std::atomic<bool> unplugged{false};
    std::atomic<bool> removed{false}; // the port knows

    Condition wake; // for the thread: something to do
    Condition idle; // for those who wait for the thread
    Notices notices;
    std::uint64_t posted = 0;   // notices ever posted for the thread
    std::uint64_t finished = 0; // whose callback has returned, or that were forgotten
    std::thread thread;
    std::atomic<std::thread::id> threadId;
    bool closing = false; // the thread ends when nothing is left to do
    bool silent = false;  // the thread ends without the closing callback
    bool refused = false;
};

} // namespace device
