#include "workbench/device/Port.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace device {

// ---- Callbacks in progress ----------------------------------------------------------------------

namespace {

// The innermost callback that the calling thread is inside of.
void*& innermost()
{
    thread_local void* callback = nullptr;
    return callback;
}

} // namespace

Port::InProgress::InProgress(Port& port, std::memory_order order)
    : count(port.callbacks), outer(static_cast<InProgress*>(innermost())),
      ofArrival(order != kUnordered)
{
    count.fetch_add(1, order);
    innermost() = this;
}

Port::InProgress::~InProgress()
{
    innermost() = outer;
    count.fetch_sub(1, std::memory_order_release);
}

bool Port::waitForOthers(std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    int own = 0;
    for (const auto* c = static_cast<InProgress*>(innermost()); c; c = c->outer) {
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
        else if (std::chrono::steady_clock::now() > end)
            return false;
        else
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
}

// ---- Windows 11's driver ------------------------------------------------------------------------

namespace {

using DriverLock = std::unique_lock<std::recursive_mutex>;

// Of all ports of the process.
std::recursive_mutex& tableLock()
{
    static auto& lock = *new std::recursive_mutex; // threads may call while the process ends
    return lock;
}

} // namespace

MMRESULT Port::lookUp(bool alsoRemoved)
{
    if (!isWindows11())
        return MMSYSERR_NOERROR;
    const DriverLock table(tableLock());
    const DriverLock own(portLock);
    return removed.load() && !alsoRemoved ? MMRESULT(MMSYSERR_NODRIVER)
                                          : MMRESULT(MMSYSERR_NOERROR);
}

void Port::unplug()
{
    unplugged.store(true);
    if (!isWindows11() || !settings.windows11.noticesRemoval)
        return;
    const DriverLock table(tableLock());
    const DriverLock own(portLock);
    removed.store(true);
}

void Port::unload()
{
    {
        const Lock held(lock);
        if (!open.load())
            return;
        endWork();
    }
    waitForOthers();
    {
        Lock held(lock);
        touchKept(held);
        discardWork();
        open.store(false);
        closing = true;
        silent = true;
        wakeThread();
    }
    released();
    announce(messages.close);
}

// WinMM looks at the flags before it asks the driver; the driver leaves the rest to WinMM.
MMRESULT Port::prepare(MIDIHDR* header, DWORD_PTR size)
{
    const MMRESULT refusal = lookUp();
    return refusal == MMSYSERR_NOERROR ? prepareHeader(header, size) : refusal;
}

MMRESULT Port::unprepare(MIDIHDR* header, DWORD_PTR size)
{
    const bool asksDriver =
        header && (flagsOf(*header) & (MHDR_PREPARED | MHDR_INQUEUE)) == MHDR_PREPARED;
    const MMRESULT refusal = asksDriver ? lookUp() : MMRESULT(MMSYSERR_NOERROR);
    return refusal == MMSYSERR_NOERROR ? unprepareHeader(header, size) : refusal;
}

// ---- Opening and closing ------------------------------------------------------------------------

Port::Port(const Settings& itsSettings, Messages itsMessages, Callback itsCallback)
    : settings(itsSettings), messages(itsMessages), callback(std::move(itsCallback)),
      driverKind(itsSettings.kind)
{}

Port::~Port() = default;

void Port::endThread()
{
    if (!thread.joinable())
        return;
    if (onOwnThread()) {
        thread.detach();
        return;
    }
    {
        const Lock held(lock);
        closing = true;
        silent = true;
        wakeThread();
    }
    thread.join();
}

bool Port::begin(std::shared_ptr<void> owner)
{
    DriverLock table(tableLock(), std::defer_lock);
    if (isWindows11())
        table.lock();
    if (!settings.ownThread) {
        announce(messages.open);
        return !settings.worker || startThread(std::move(owner));
    }
    Lock held(lock);
    tell(held, {messages.open, 0, 0});
    return startThread(std::move(owner));
}

bool Port::startThread(std::shared_ptr<void> owner)
{
    try {
        thread = std::thread([this, keeps = std::move(owner)] { run(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

MMRESULT Port::close()
{
    DriverLock table(tableLock(), std::defer_lock);
    if (isWindows11()) {
        table.lock();
        lookUp(true);
    }
    Lock held(lock);
    if (!open.load())
        return MMSYSERR_INVALHANDLE;
    if (queuedHeaders() + headersInNotices() > 0) {
        refused = true;
        return MIDIERR_STILLPLAYING;
    }
    endWork();
    open.store(false);
    const bool waits = kind() != DriverKind::WaitsInNeither;
    const bool threadTells = settings.ownThread && waits;
    silent = !threadTells;
    if (settings.ownThread && !waits) {
        discardWork();
        callAll(held, notices);
    }
    closing = true;
    wakeThread();
    held.unlock();

    released();
    if (isWindows11()) {
        waitForOthers(std::chrono::milliseconds(settings.windows11.closeLimit));
        table.unlock();
    } else if (waits && !threadTells) {
        waitForOthers();
    }
    if (waits && thread.joinable() && !onOwnThread())
        thread.join();
    if (!threadTells)
        announce(messages.close);
    return MMSYSERR_NOERROR;
}

bool Port::wasRefused()
{
    const Lock held(lock);
    return refused;
}

void Port::abandon()
{
    {
        const Lock held(lock);
        endWork();
        discardWork();
        open.store(false);
        closing = true;
        silent = true;
        finished += notices.size();
        notices.clear();
        wakeThread();
    }
    released();
}

Counters Port::counters()
{
    const Lock held(lock);
    Counters result = tally;
    result.delivered.shortMessages += shortsCalled.load(std::memory_order_relaxed);
    result.queuedBuffers = queuedHeaders() + headersInNotices();
    return result;
}

std::size_t Port::queued()
{
    const Lock held(lock);
    return queuedHeaders();
}

// ---- Callbacks ----------------------------------------------------------------------------------

void Port::call(UINT message, DWORD_PTR parameter1, DWORD parameter2) const
{
    if (callback)
        callback(message, parameter1, parameter2);
}

// Inside a call of the client.
void Port::announce(UINT message)
{
    const InProgress inProgress(*this, InProgress::kUnordered);
    call(message, 0, 0);
}

bool Port::raw(UINT message, DWORD parameter1, DWORD parameter2)
{
    const InProgress inProgress(*this);
    if (!open.load())
        return false;
    call(message, parameter1, parameter2);
    return true;
}

Port::Notice Port::noticeOf(UINT message, MIDIHDR* header, DWORD bytes, DWORD parameter2)
{
    return {message, reinterpret_cast<DWORD_PTR>(header), parameter2, header, bytes};
}

void Port::tell(Lock& held, Notice notice)
{
    if (settings.ownThread) {
        notices.push_back(notice);
        ++posted;
        wakeThread();
        return;
    }
    callBack(held, notice);
}

void Port::conclude(Lock& held, Notices due, bool isReset)
{
    if (!settings.ownThread) {
        callAll(held, due);
        return;
    }
    posted += due.size();
    notices.insert(notices.end(), due.begin(), due.end());
    wakeThread();
    if (!isReset)
        return;
    if (kind() == DriverKind::WaitsInNeither) {
        callAll(held, notices);
        return;
    }
    for (Notice& notice : notices)
        giveBack(notice);
    if (kind() == DriverKind::WaitsInClose || onOwnThread())
        return;
    const std::uint64_t target = posted;
    while (finished < target)
        idle.wait(held);
}

std::size_t Port::dropNotices(UINT message)
{
    const auto kept = std::remove_if(notices.begin(), notices.end(), [&](const Notice& notice) {
        return notice.message == message;
    });
    const auto dropped = static_cast<std::size_t>(notices.end() - kept);
    notices.erase(kept, notices.end());
    finished += dropped;
    return dropped;
}

DWORD Port::headersInNotices() const
{
    return static_cast<DWORD>(
        std::count_if(notices.begin(), notices.end(),
                      [](const Notice& notice) { return notice.header && !notice.given; }));
}

void Port::run()
{
    Lock held(lock);
    threadId.store(std::this_thread::get_id());
    for (;;) {
        if (!notices.empty()) {
            const Notice first = notices.front();
            notices.pop_front();
            callBack(held, first);
            ++finished;
            idle.notifyAll();
            continue;
        }
        const DWORD pause = work(held);
        if (pause == 0)
            continue;
        if (closing)
            break;
        wake.wait(held, pause);
    }
    const bool tells = !silent;
    held.unlock();
    if (tells)
        call(messages.close, 0, 0);
}

void Port::callBack(Lock& held, Notice notice)
{
    giveBack(notice);
    held.unlock();
    {
        const InProgress inProgress(*this);
        call(notice.message, notice.parameter1, notice.parameter2);
    }
    held.lock();
}

// On the thread of the call that brings them about; of a driver that waits for nothing, also what
// its thread, perhaps deep in a callback, has not come to yet.
void Port::callAll(Lock& held, Notices& source)
{
    Notices due;
    due.swap(source);
    for (Notice& notice : due)
        giveBack(notice);
    held.unlock();
    {
        const InProgress inProgress(*this, InProgress::kUnordered);
        for (const Notice& notice : due)
            call(notice.message, notice.parameter1, notice.parameter2);
    }
    held.lock();
    finished += due.size();
    idle.notifyAll();
}

// Counts the notice; its header, if it brings one back, becomes the client's.
void Port::giveBack(Notice& notice)
{
    if (notice.given)
        return;
    notice.given = true;
    if (notice.message == MIM_DATA)
        ++tally.delivered.shortMessages;
    if (!notice.header)
        return;
    if (messages.open == MIM_OPEN)
        notice.header->dwBytesRecorded = notice.bytes;
    markDone(*notice.header);
    tally.delivered.bytes += notice.bytes;
}

} // namespace device
