// What an open input and an open output have in common: the client's callback, who makes it and who
// waits for it, and the closing.
#pragma once

#include "transport/MIDIByteStream.h"
#include "workbench/device/Settings.h"
#include "workbench/device/Threads.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <thread>

namespace device {

// The flags of a header, shared between the driver's threads and whoever polls them. Their offset
// of 24 in the packed header keeps them aligned, which a compiler does not know.
inline DWORD* flagsAddress(const MIDIHDR& header)
{
    const char* const bytes = reinterpret_cast<const char*>(&header);
    return reinterpret_cast<DWORD*>(const_cast<char*>(bytes + offsetof(MIDIHDR, dwFlags)));
}

inline DWORD flagsOf(const MIDIHDR& header)
{
    return __atomic_load_n(flagsAddress(header), __ATOMIC_ACQUIRE);
}

inline void setFlags(MIDIHDR& header, DWORD flags)
{
    __atomic_store_n(flagsAddress(header), flags, __ATOMIC_RELEASE);
}

// What has been lost. Bytes are those of SysEx messages, or of none; a short message counts as one.
struct Loss
{
    void count(const MIDIPiece& piece)
    {
        shortMessages += piece.kind == MIDIPiece::Kind::Short ? 1 : 0;
        bytes += piece.length;
    }

    std::uint64_t shortMessages = 0;
    std::uint64_t bytes = 0;
};

class Port
{
public:
    using Callback = std::function<void(UINT message, DWORD_PTR parameter1, DWORD parameter2)>;

    virtual ~Port() = default;

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

    // Ends a port whose close was refused, where that takes the client's handle away all the same:
    // no callback any more, its headers are not touched.
    void abandon();

    Loss loss(); // since the opening
    // Headers that the port still owes its client.
    std::size_t queued();
    // Calls the client back with anything. False if the port is closed.
    bool raw(UINT message, DWORD parameter1, DWORD parameter2);

protected:
    // Something to tell the client.
    struct Notice
    {
        UINT message;
        DWORD_PTR parameter1;
        DWORD parameter2;
    };
    using Notices = std::deque<Notice>;
    using DriverLock = std::unique_lock<std::recursive_mutex>;

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
        static thread_local const InProgress* innermost;
        std::atomic<int>& count;
        const InProgress* const outer; // of this thread
        const bool ofArrival;          // not inside a call of the client
    };

    // `opened` and `closed` are what the client is told. With a thread of the port's own if
    // `threaded`.
    Port(const Settings& settings, UINT opened, UINT closed, bool threaded, Callback callback);

    bool isWindows11() const { return settings.kind == DriverKind::Windows11; }
    // At the head of every call to a port of the Windows 11 kind: takes the lock of all ports and
    // inside it the port's. Whoever holds the port's, as a send does, so holds up every call to any
    // port. MMSYSERR_NODRIVER after a removal that is noticed.
    MMRESULT lookUp(bool alsoRemoved = false);
    // Until only those callbacks are left that the calling thread itself is inside of. Without the
    // lock.
    void waitForOthers();
    void call(const Notice& notice) const;

    // Whether the client may hand the header over now.
    MMRESULT check(const MIDIHDR* header, DWORD_PTR size) const;
    static void markQueued(MIDIHDR& header);

    // For the destructors of those that work() belongs to. Waits for the thread, unless that is the
    // one that frees the port.
    void endThread();

    // Below here `lock` is held; it is let go while the client is called back from here.

    // The header becomes the client's again, which must then be told.
    static Notice giveBack(UINT message, MIDIHDR* header, DWORD timeStamp);
    void tell(Lock& held, const Notices& due);
    // At the head of a reset, and at its end with what it brings about: waits as the kind says.
    void waitInReset(Lock& held);
    void tellReset(Lock& held, const Notices& due);

    // One step of the port's own work, on its thread, when no callback is due. Returns 0 if
    // something was done, otherwise the number of milliseconds to wait unless woken.
    virtual DWORD work(Lock& held) = 0;
    virtual std::size_t queuedHeaders() const = 0;
    virtual void endWork() {}        // no more input
    virtual void discardWork() = 0;  // what is waiting is forgotten
    virtual void released() {}       // the port is closed for the world; without the lock
    virtual void touchKept(Lock&) {} // the headers of a port whose driver is unloaded

    const Settings settings;
    std::recursive_mutex portLock; // of the Windows 11 kind; taken before `lock`
    Mutex lock;
    Condition changed; // tells the thread, and who waits for it
    Loss lost;
    Notices notices; // for the thread to call back

private:
    void run();
    void announce(UINT message);
    void callAll(Lock& held, const Notices& due);
    bool onOwnThread() const { return thread.get_id() == std::this_thread::get_id(); }

    const UINT opened, closed;
    const bool threaded;
    const Callback callback;
    std::atomic<bool> open{true}; // the thread ends when it is not and nothing is left to do
    std::atomic<bool> unplugged{false};
    std::atomic<int> callbacks{0};
    bool calling = false; // the thread is inside a callback
    // Joining waits until it is gone, not just done with its work: Wine may crash a process that
    // ends while a thread is on its way out.
    std::thread thread;
};

} // namespace device
