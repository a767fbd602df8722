#include "Port.h"

#include "EventLog.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>

#include <mmddk.h>

// Exported by winmm.dll; MinGW's headers leave it out.
extern "C" WINMMAPI BOOL WINAPI DriverCallback(DWORD_PTR callback, DWORD type, HDRVR device,
                                               DWORD message, DWORD_PTR instance,
                                               DWORD_PTR parameter1, DWORD_PTR parameter2);

namespace cable {
namespace {

bool isHeader(const MIDIHDR* header, DWORD_PTR size)
{
    return header && size >= offsetof(MIDIHDR, dwOffset) && header->lpData &&
           header->dwBufferLength > 0;
}

DWORD flagsOf(const MIDIHDR* header)
{
    return __atomic_load_n(&header->dwFlags, __ATOMIC_ACQUIRE);
}

void changeFlags(MIDIHDR* header, DWORD clear, DWORD set)
{
    __atomic_store_n(&header->dwFlags, (flagsOf(header) & ~clear) | set, __ATOMIC_RELEASE);
}

} // namespace

DWORD_PTR nextPortId()
{
    static std::atomic<DWORD_PTR> last{0};
    return ++last;
}

void Client::call(UINT message, DWORD_PTR parameter1, DWORD_PTR parameter2) const
{
    DriverCallback(callback, HIWORD(flags & CALLBACK_TYPEMASK), reinterpret_cast<HDRVR>(handle),
                   message, instance, parameter1, parameter2);
}

void markQueued(MIDIHDR* header)
{
    changeFlags(header, MHDR_DONE, MHDR_INQUEUE);
}

void markDone(MIDIHDR* header)
{
    changeFlags(header, MHDR_INQUEUE, MHDR_DONE);
}

DWORD prepareHeader(MIDIHDR* header, DWORD_PTR size)
{
    if (!isHeader(header, size))
        return MMSYSERR_INVALPARAM;
    if (flagsOf(header) & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    if (!(flagsOf(header) & MHDR_PREPARED))
        changeFlags(header, MHDR_DONE, MHDR_PREPARED);
    return MMSYSERR_NOERROR;
}

DWORD unprepareHeader(MIDIHDR* header, DWORD_PTR size)
{
    if (!header || size < offsetof(MIDIHDR, dwOffset))
        return MMSYSERR_INVALPARAM;
    if (!(flagsOf(header) & MHDR_PREPARED))
        return MMSYSERR_NOERROR;
    if (flagsOf(header) & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    changeFlags(header, MHDR_PREPARED, 0);
    return MMSYSERR_NOERROR;
}

DWORD checkHeader(const MIDIHDR* header, DWORD_PTR size)
{
    if (!isHeader(header, size))
        return MMSYSERR_INVALPARAM;
    if (!(flagsOf(header) & MHDR_PREPARED))
        return MIDIERR_UNPREPARED;
    if (flagsOf(header) & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    return MMSYSERR_NOERROR;
}

Port::Port(Direction direction, const PortDescription& description, unsigned position,
           const Client& client)
    : input_(direction == Direction::Input), description_(description), position_(position),
      client_(client), id_(nextPortId())
{
    counters_.size = sizeof counters_;
}

bool Port::begin()
{
    {
        const Lock lock(mutex_);
        post(input_ ? MIM_OPEN : MOM_OPEN, 0, 0);
    }
    thread_ = startThread([self = shared_from_this()] { self->run(); });
    if (!thread_)
        return false;
    opened();
    logEvent(directionName(), position_, "open");
    return true;
}

DWORD Port::close()
{
    Lock lock(mutex_);
    if (closing_)
        return MMSYSERR_INVALHANDLE;
    if (queuedHeaders() + postedHeaders() > 0) {
        abandoned_ = true;
        return MIDIERR_STILLPLAYING;
    }
    endWork();
    closing_ = true;
    const bool waits = description_.wait != WaitKind::None;
    if (!waits) {
        silent_ = true;
        discardWork();
        callBackFromHere(lock);
    }
    wakeThread();
    while (waits && !ended_ && !onOwnThread())
        idle_.wait(lock);
    lock.unlock();
    if (waits && !onOwnThread())
        join(thread_);

    released();
    logClose();
    if (!waits)
        client_.call(input_ ? MIM_CLOSE : MOM_CLOSE, 0, 0);
    return MMSYSERR_NOERROR;
}

bool Port::abandoned()
{
    const Lock lock(mutex_);
    return abandoned_;
}

void Port::discard()
{
    {
        const Lock lock(mutex_);
        endWork();
        discardWork();
        closing_ = true;
        silent_ = true;
        finished_ += events_.size();
        events_.clear();
        wakeThread();
    }
    released();
    logClose();
}

LumoraCableCounters Port::counters()
{
    const Lock lock(mutex_);
    LumoraCableCounters result = counters_;
    result.queuedBuffers = queuedHeaders() + postedHeaders();
    return result;
}

void Port::post(UINT message, DWORD_PTR parameter1, DWORD parameter2)
{
    events_.push_back({message, parameter1, parameter2, nullptr, 0, false});
    ++posted_;
    wakeThread();
}

void Port::postHeader(UINT message, MIDIHDR* header, DWORD bytes, DWORD parameter2)
{
    events_.push_back(
        {message, reinterpret_cast<DWORD_PTR>(header), parameter2, header, bytes, false});
    ++posted_;
    wakeThread();
}

size_t Port::dropPosted(UINT message)
{
    size_t kept = 0;
    for (const Event& event : events_)
        if (event.message != message)
            events_[kept++] = event;
    const size_t dropped = events_.size() - kept;
    events_.resize(kept);
    finished_ += dropped;
    return dropped;
}

void Port::finishReset(Lock& lock)
{
    if (description_.wait == WaitKind::None) {
        callBackFromHere(lock);
        return;
    }
    for (Event& event : events_)
        giveBack(event);
    if (description_.wait == WaitKind::Close || onOwnThread())
        return;
    const ULONGLONG target = posted_;
    while (finished_ < target)
        idle_.wait(lock);
}

DWORD Port::postedHeaders() const
{
    DWORD count = 0;
    for (const Event& event : events_)
        if (event.header && !event.given)
            ++count;
    return count;
}

void Port::run()
{
    Lock lock(mutex_);
    threadId_ = GetCurrentThreadId();
    for (;;) {
        if (!events_.empty()) {
            callBack(lock);
            continue;
        }
        const DWORD pause = work(lock);
        if (pause == 0)
            continue;
        if (closing_)
            break;
        wake_.wait(lock, pause);
    }
    if (!silent_) {
        lock.unlock();
        logHeld();
        client_.call(input_ ? MIM_CLOSE : MOM_CLOSE, 0, 0);
        lock.lock();
    }
    ended_ = true;
    idle_.notifyAll();
}

void Port::callBack(Lock& lock)
{
    Event event = events_.front();
    events_.pop_front();
    giveBack(event);
    lock.unlock();
    if (description_.logHeld && event.message == MIM_DATA)
        callTimed(event);
    else
        client_.call(event.message, event.parameter1, event.parameter2);
    lock.lock();
    ++finished_;
    idle_.notifyAll();
}

void Port::callTimed(const Event& event)
{
    const LONGLONG start = nanoseconds();
    client_.call(event.message, event.parameter1, event.parameter2);
    held_.push_back(nanoseconds() - start);
}

// For a driver that waits for nothing: what its thread, perhaps deep in a callback, has not come to
// yet is called back on the thread of the reset or close.
void Port::callBackFromHere(Lock& lock)
{
    std::deque<Event> events;
    events.swap(events_);
    for (Event& event : events)
        giveBack(event);
    lock.unlock();
    for (const Event& event : events)
        client_.call(event.message, event.parameter1, event.parameter2);
    lock.lock();
    finished_ += events.size();
    idle_.notifyAll();
}

// Counts the event; its header, if it brings one back, becomes the client's.
void Port::giveBack(Event& event)
{
    if (event.given)
        return;
    event.given = true;
    if (event.message == MIM_DATA)
        ++counters_.deliveredShort;
    if (!event.header)
        return;
    if (input_)
        event.header->dwBytesRecorded = event.bytes;
    markDone(event.header);
    counters_.deliveredBytes += event.bytes;
}

// In microseconds, several to a line.
void Port::logHeld()
{
    constexpr size_t perLine = 10;
    for (size_t i = 0; i < held_.size(); i += perLine) {
        std::string line = "held";
        for (size_t k = i; k < std::min(i + perLine, held_.size()); ++k) {
            char text[24];
            __mingw_snprintf(text, sizeof text, " %.1f", static_cast<double>(held_[k]) / 1000);
            line += text;
        }
        logEvent(directionName(), position_, "%s", line.c_str());
    }
    held_.clear();
}

void Port::logClose()
{
    const LumoraCableCounters last = counters();
    logEvent(directionName(), position_, "close dropped %llu bytes %llu short", last.droppedBytes,
             last.droppedShort);
}

} // namespace cable
