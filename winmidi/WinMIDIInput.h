#ifndef LUMORA_WINMIDI_WINMIDIINPUT_H
#define LUMORA_WINMIDI_WINMIDIINPUT_H

#include <QThread>
#include <atomic>
#include <windows.h>

#include <mmsystem.h>

/// Input buffers: together 3 MB of SysEx that can arrive while nobody takes it out.
static const unsigned int kInputHeaders = 768;

/// What the input callback keeps of each call. The time stamp is not kept.
struct InputRecord
{
    DWORD message; ///< WinMM's message code, MIM_…
    DWORD param;   ///< the packed short message, or the address of the returned header

    bool returnsBuffer() const { return message == MIM_LONGDATA || message == MIM_LONGERROR; }
};
static_assert(sizeof(InputRecord) == 8, "a record is two items of 4 bytes");

/// Room for 65,536 records.
static const int kQueueBytes = 0x80000;

/// A short message is queued only while this much is free, 6,160 bytes, so that the notices that
/// hand all the input buffers back always find room: a lost notice would be a lost buffer. The two
/// more are for messages of other kinds.
static const int kShortMessageRoom = int((kInputHeaders + 2) * sizeof(InputRecord));

/// Counts the input buffers that the device was given and has not returned. Some drivers return the
/// last ones only after the reset that should have brought them back.
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

/// The thread that drains, on which observers are called: the pusher thread.
class DrainingThread
{
public:
    /// The current thread drains for as long as this lives. Marks nest, for an observer may have
    /// the transport drain.
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

    /// Whether an observer is calling, and not one of the host's threads.
    bool isCurrent() const { return thread == QThread::currentThreadId(); }

private:
    std::atomic<Qt::HANDLE> thread{nullptr};
};

#endif
