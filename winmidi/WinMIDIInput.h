#ifndef LUMORA_WINMIDI_WINMIDIINPUT_H
#define LUMORA_WINMIDI_WINMIDIINPUT_H

#include <QThread>
#include <atomic>
#include <windows.h>

#include <mmsystem.h>

/// Input buffers, for 3 MB of SysEx that the observers have not taken yet.
static const unsigned int kInputHeaders = 768;

/// What the input callback keeps of each call, without the time stamp.
struct InputRecord
{
    DWORD message; ///< WinMM's message code, MIM_…
    DWORD param;   ///< the packed short message, or the address of the returned header

    bool returnsBuffer() const { return message == MIM_LONGDATA || message == MIM_LONGERROR; }
};
static_assert(sizeof(InputRecord) == 8, "a record is two items of 4 bytes");

/// Room for 65,536 records.
static const int kQueueBytes = 0x80000;

/// A short message is queued only while this much is free, 6,160 bytes, so that the notices of all
/// input buffers find room: a lost notice would be a lost buffer. Two more records are for other
/// kinds of messages, such as errors. Only a flood of those can use up the reserve.
static const int kShortMessageRoom = int((kInputHeaders + 2) * sizeof(InputRecord));

/// Counts the input buffers that the device has. Some drivers return the last ones only after the
/// reset that should have returned them.
class BuffersOut
{
public:
    void reset() { count = 0; }
    void give() { ++count; } ///< called before the device can return the buffer
    void takeBack() { --count; }
    bool any() const { return count > 0; }

private:
    std::atomic<int> count{0};
};

/// The thread that drains and calls the observers: the pusher thread.
class DrainingThread
{
public:
    /// Marks the current thread as draining while this lives. Marks nest, since an observer may
    /// make the transport drain.
    class Mark
    {
    public:
        explicit Mark(DrainingThread* draining)
            : thread(draining->thread), before(thread.exchange(QThread::currentThreadId()))
        {}
        ~Mark() { thread = before; }

        Mark(const Mark&) = delete;
        Mark& operator=(const Mark&) = delete;

    private:
        std::atomic<Qt::HANDLE>& thread;
        const Qt::HANDLE before;
    };

    /// Whether the caller is an observer, not one of the host's threads.
    bool isCurrent() const { return thread == QThread::currentThreadId(); }

private:
    std::atomic<Qt::HANDLE> thread{nullptr};
};

#endif
