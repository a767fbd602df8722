#ifndef LUMORA_WINMIDI_WINMIDIOUTPUT_H
#define LUMORA_WINMIDI_WINMIDIOUTPUT_H

#include <atomic>
#include <windows.h>

/// Output buffers: that many chunks can be queued in WinMM at once.
static const unsigned int kOutputHeaders = 8;

/// Keeps senders and the closing of the port apart. A sender is counted while it hands a chunk over
/// and waits for it. A closing port turns senders away and waits until they have left.
class Senders
{
public:
    /// A sender. It is counted first and asks admits() second, the other way round than turnAway()
    /// does it: one of the two sees the other.
    class Sending
    {
    public:
        explicit Sending(Senders* senders) : count(senders->inside) { ++count; }
        ~Sending() { --count; }

        Sending(const Sending&) = delete;
        Sending& operator=(const Sending&) = delete;

    private:
        std::atomic<int>& count;
    };

    /// The time between two closings, as a number. A message belongs to the one it began in.
    unsigned period() const { return number; }

    /// Whether what began in `period` may go on: the port has not begun to close since.
    bool admits(unsigned period) const { return number == period && period % 2 == 0; }

    bool any() const { return inside > 0; }

    void turnAway() { ++number; }
    void readmit() { ++number; }

private:
    std::atomic<unsigned> number{0}; // odd while the port closes
    std::atomic<int> inside{0};
};

#endif
