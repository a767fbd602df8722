#include "workbench/device/Port.h"

#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace device {

namespace {

// Of all ports of the process.
std::recursive_mutex& tableLock()
{
    static auto& lock = *new std::recursive_mutex; // threads may call while the process ends
    return lock;
}

// The part of a header that Windows 11's driver asks for.
constexpr DWORD_PTR kLeastHeader = 32;

// All that a client of any age must have; what follows is the driver's own.
bool isWhole(const MIDIHDR* header, DWORD_PTR size)
{
    return header && size >= offsetof(MIDIHDR, dwOffset);
}

bool hasData(const MIDIHDR& header)
{
    return header.lpData && header.dwBufferLength > 0;
}

} // namespace

// ---- Callbacks in progress ----------------------------------------------------------------------

thread_local const Port::InProgress* Port::InProgress::innermost = nullptr;

Port::InProgress::InProgress(Port& port, std::memory_order order)
    : count(port.callbacks), outer(innermost), ofArrival(order != kUnordered)
{
    count.fetch_add(1, order);
    innermost = this;
}

Port::InProgress::~InProgress()
{
    innermost = outer;
    count.fetch_sub(1, std::memory_order_release);
}

void Port::waitForOthers()
{
    int own = 0;
    for (const InProgress* c = InProgress::innermost; c; c = c->outer) {
        if (&c->count != &callbacks)
            continue;
        ++own;
        if (isWindows11() && c->ofArrival) {
            std::fprintf(stderr, "device: a call inside the worker's callback never returns\n");
            std::abort();
        }
    }
    for (int round = 0; callbacks.load() > own; ++round) {
        if (round < 100)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

// ---- Windows 11's driver ------------------------------------------------------------------------

MMRESULT Port::lookUp(bool alsoRemoved)
{
    if (!isWindows11())
        return MMSYSERR_NOERROR;
    const DriverLock table(tableLock());
    const DriverLock own(portLock);
    const bool isRemoved = isUnplugged() && settings.windows11.noticesRemoval;
    return isRemoved && !alsoRemoved ? MMRESULT(MMSYSERR_NODRIVER) : MMRESULT(MMSYSERR_NOERROR);
}

void Port::unplug()
{
    unplugged.store(true);
    if (settings.windows11.noticesRemoval)
        lookUp(); // waits as any call
}

void Port::unload()
{
    Lock held(lock);
    endWork();
    held.unlock();
    waitForOthers();
    held.lock();
    touchKept(held);
    held.unlock();
    abandon();
    announce(closed);
}

// ---- Headers ------------------------------------------------------------------------------------

// Once prepared it stays so, whatever else the flags say.
MMRESULT Port::prepare(MIDIHDR* header, DWORD_PTR size)
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    if (!isWhole(header, size) || !hasData(*header))
        return MMSYSERR_INVALPARAM;
    const DWORD flags = flagsOf(*header);
    if ((flags & MHDR_PREPARED) == 0)
        setFlags(*header, (flags & ~DWORD(MHDR_DONE | MHDR_INQUEUE)) | MHDR_PREPARED);
    return MMSYSERR_NOERROR;
}

// WinMM looks at the flags before it asks the driver.
MMRESULT Port::unprepare(MIDIHDR* header, DWORD_PTR size)
{
    if (!isWhole(header, size))
        return MMSYSERR_INVALPARAM;
    const DWORD flags = flagsOf(*header);
    if ((flags & MHDR_PREPARED) == 0)
        return MMSYSERR_NOERROR;
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    if (const MMRESULT refusal = lookUp())
        return refusal;
    setFlags(*header, flags & ~DWORD(MHDR_PREPARED));
    return MMSYSERR_NOERROR;
}

MMRESULT Port::check(const MIDIHDR* header, DWORD_PTR size) const
{
    if (isWindows11()) // whatever the flags say
        return header && size >= kLeastHeader ? MMRESULT(MMSYSERR_NOERROR)
                                              : MMRESULT(MMSYSERR_INVALPARAM);
    if (!isWhole(header, size))
        return MMSYSERR_INVALPARAM;
    const DWORD flags = flagsOf(*header);
    if ((flags & MHDR_PREPARED) == 0)
        return MIDIERR_UNPREPARED;
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    return hasData(*header) ? MMRESULT(MMSYSERR_NOERROR) : MMRESULT(MMSYSERR_INVALPARAM);
}

void Port::markQueued(MIDIHDR& header)
{
    setFlags(header, (flagsOf(header) & ~DWORD(MHDR_DONE)) | MHDR_INQUEUE);
}

// ---- Opening and closing ------------------------------------------------------------------------

Port::Port(const Settings& itsSettings, UINT itsOpened, UINT itsClosed, bool isThreaded,
           Callback itsCallback)
    : settings(itsSettings), opened(itsOpened), closed(itsClosed), threaded(isThreaded),
      callback(std::move(itsCallback))
{}

bool Port::begin(std::shared_ptr<void> owner)
{
    const DriverLock table = isWindows11() ? DriverLock(tableLock()) : DriverLock();
    if (threaded) {
        try {
            thread = std::thread([this, keeps = std::move(owner)] { run(); });
        } catch (const std::system_error&) {
            return false;
        }
    }
    announce(opened);
    return true;
}

void Port::endThread()
{
    if (onOwnThread()) {
        thread.detach();
    } else if (thread.joinable()) {
        {
            const Lock held(lock);
            open.store(false);
            changed.notify_all();
        }
        thread.join();
    }
}

MMRESULT Port::close()
{
    const DriverLock table = isWindows11() ? DriverLock(tableLock()) : DriverLock();
    lookUp(true);
    Lock held(lock);
    if (!open.load())
        return MMSYSERR_INVALHANDLE;
    if (queuedHeaders() > 0)
        return MIDIERR_STILLPLAYING;
    endWork();
    open.store(false);
    changed.notify_all();
    const bool waits = settings.kind != DriverKind::WaitsInNeither;
    if (!waits || onOwnThread())
        callAll(held, std::exchange(notices, {}));
    held.unlock();

    released();
    if (waits) {
        waitForOthers();
        if (thread.joinable() && !onOwnThread())
            thread.join();
    }
    announce(closed);
    return MMSYSERR_NOERROR;
}

void Port::abandon()
{
    {
        const Lock held(lock);
        endWork();
        discardWork();
        notices.clear();
        open.store(false);
        changed.notify_all();
    }
    released();
}

Loss Port::loss()
{
    const Lock held(lock);
    return lost;
}

std::size_t Port::queued()
{
    const Lock held(lock);
    return queuedHeaders();
}

// ---- Callbacks ----------------------------------------------------------------------------------

void Port::call(const Notice& notice) const
{
    if (callback)
        callback(notice.message, notice.parameter1, notice.parameter2);
}

// Inside a call of the client.
void Port::announce(UINT message)
{
    const InProgress inProgress(*this, InProgress::kUnordered);
    call({message, 0, 0});
}

bool Port::raw(UINT message, DWORD parameter1, DWORD parameter2)
{
    const InProgress inProgress(*this);
    if (!open.load())
        return false;
    call({message, parameter1, parameter2});
    return true;
}

Port::Notice Port::giveBack(UINT message, MIDIHDR* header, DWORD timeStamp)
{
    setFlags(*header, (flagsOf(*header) & ~DWORD(MHDR_INQUEUE)) | MHDR_DONE);
    return {message, reinterpret_cast<DWORD_PTR>(header), timeStamp};
}

void Port::tell(Lock& held, const Notices& due)
{
    if (settings.ownThread) {
        notices.insert(notices.end(), due.begin(), due.end());
        changed.notify_all();
    } else {
        callAll(held, due);
    }
}

// Where the port's own thread calls back, tellReset() waits for that.
void Port::waitInReset(Lock& held)
{
    if (settings.ownThread || settings.kind != DriverKind::WaitsInReset)
        return;
    held.unlock();
    waitForOthers();
    held.lock();
}

void Port::tellReset(Lock& held, const Notices& due)
{
    tell(held, due);
    if (settings.kind == DriverKind::WaitsInNeither) // its thread may be deep in a callback
        callAll(held, std::exchange(notices, {}));
    else if (settings.kind == DriverKind::WaitsInReset && !onOwnThread())
        changed.wait_for(held, std::chrono::hours(1000),
                         [&] { return notices.empty() && !calling; });
}

// Inside the call that brings them about, by whoever lets data arrive, or on the port's own thread.
void Port::callAll(Lock& held, const Notices& due)
{
    held.unlock();
    {
        const InProgress inProgress(*this, InProgress::kUnordered);
        for (const Notice& notice : due)
            call(notice);
    }
    held.lock();
}

void Port::run()
{
    Lock held(lock);
    for (;;) {
        if (!notices.empty()) {
            const Notice next = notices.front();
            notices.pop_front();
            calling = true;
            callAll(held, {next});
            calling = false;
            if (notices.empty())
                changed.notify_all();
            continue;
        }
        const DWORD pause = work(held);
        if (pause == 0)
            continue;
        if (!open.load())
            break;
        changed.wait_for(held, std::chrono::milliseconds(pause));
    }
}

} // namespace device
