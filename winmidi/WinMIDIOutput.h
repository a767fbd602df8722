#ifndef LUMORA_WINMIDI_WINMIDIOUTPUT_H
#define LUMORA_WINMIDI_WINMIDIOUTPUT_H

#include <atomic>
#include <windows.h>

/// Output buffers: that many chunks can be queued in WinMM at once.
static const unsigned int kOutputHeaders = 8;

/// The senders that wait for a chunk, and the closings of the port that end their waits: a chunk of
/// a port that is closed by now may never be done.
class Senders
{
public:
    /// A sender that waits. It is counted first and looks at closedSince() second, the other way
    /// round than release() does it: one of the two sees the other.
    class Waiting
    {
    public:
        explicit Waiting(Senders* senders) : count(senders->waiting) { ++count; }
        ~Waiting() { --count; }

        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;

    private:
        std::atomic<int>& count;
    };

    /// How often the output was closed.
    unsigned closings() const { return closed; }

    /// Whether the output was closed since closings() was `before`.
    bool closedSince(unsigned before) const { return closed != before; }

    /// Once the port is closed: wakes the senders that wait for `doneEvent`, whose chunks it did
    /// not give back. Gives up on one whose thread was ended from outside.
    void release(HANDLE doneEvent);

private:
    std::atomic<unsigned> closed{0};
    std::atomic<int> waiting{0};
};

#endif
