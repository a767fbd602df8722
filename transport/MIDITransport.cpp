#include "transport/MIDITransport.h"

#include "transport/MIDIEventPushThread.h"
#include "transport/MIDIObserverBlock.h"
#include "utilities/OLEString.h"

#include <memory>
#include <new>
#include <objbase.h>
#include <windows.h>

// How often to signal a pusher thread that does not end, in milliseconds.
static const unsigned long kSignalInterval = 100;

// Transports made so far in this process. Not locked, never counted down.
static int transportCount = 0;

struct TaskMemoryFree
{
    void operator()(WCHAR* text) const { CoTaskMemFree(text); }
};

// Null if the event cannot be created or named.
static HANDLE createDataEvent(int number)
{
    try {
        const QString name =
            QString::fromLatin1("lumora.framework.transport - (%1) - ").arg(number);
        const std::unique_ptr<WCHAR, TaskMemoryFree> wideName(CreateOLEString(name));
        // Another process's transport of this number shares the event, and a signal wakes only one
        // of their two threads. That is accepted: the error code that reports it is ignored.
        const HANDLE event = CreateEventW(nullptr, FALSE, TRUE, wideName.get());
        static_cast<void>(GetLastError());
        return event;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

TMIDIProxyInOut::~TMIDIProxyInOut() = default;

TMIDITransport::TMIDITransport(IMIDIPortAccessor* accessor)
    : accessor(accessor), refCount(1), terminated(false), observerBlock(nullptr), pusher(nullptr),
      dataEvent(nullptr)
{
    observerBlock = new TMIDIObserverBlock; // the last that can throw
    ++transportCount;
    dataEvent = createDataEvent(transportCount);
}

TMIDITransport::~TMIDITransport()
{
    stopPusherThread();
    if (dataEvent) {
        CloseHandle(dataEvent);
        dataEvent = nullptr;
    }
    delete observerBlock;
}

unsigned int TMIDITransport::AddRef()
{
    return ++refCount;
}

unsigned int TMIDITransport::Release()
{
    const unsigned int count = --refCount;
    if (count == 0) {
        terminated = true;
        delete this;
    }
    return count;
}

void TMIDITransport::terminate()
{
    terminated = true;
}

bool TMIDITransport::valid() const
{
    // The reference may come from a failed allocation. This file is compiled so that the compiler
    // does not assume a non-null `this`.
    return this != nullptr;
}

void TMIDITransport::registerMIDIobserver(TMIDIReaderRefConInterface* observer)
{
    if (observerBlock->observers.findRef(observer) < 0)
        observerBlock->observers.append(observer);
}

void TMIDITransport::doEvent(TMIDIEvent& event)
{
    const std::atomic<bool> neverTerminated{false};
    observerBlock->deliver(static_cast<int>(event.message.size()), event.message.constData(), true,
                           neverTerminated);
}

void TMIDITransport::startPusherThread()
{
    if (pusher)
        return;
    try {
        pusher = new TMIDIEventPushThread(this);
    } catch (const std::bad_alloc&) {
        return; // input is then queued but never delivered
    }
    pusher->start(QThread::TimeCriticalPriority);
}

void TMIDITransport::stopPusherThread()
{
    // The event resets itself when it wakes the thread, so a drain that began before the request
    // may consume this first signal, but not the second one.
    SetEvent(dataEvent);
    if (!pusher)
        return;
    pusher->requestStop();
    SetEvent(dataEvent);
    // Another process's pusher that shares the event may have been woken instead of ours.
    while (!pusher->wait(kSignalInterval))
        SetEvent(dataEvent);
    delete pusher;
    pusher = nullptr;
}
