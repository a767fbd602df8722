#ifndef LUMORA_WINMIDI_WINMIDIOUTPUT_H
#define LUMORA_WINMIDI_WINMIDIOUTPUT_H

#include <atomic>
#include <windows.h>

/// Output buffers: the number of chunks that WinMM can have at once.
static const unsigned int kOutputHeaders = 8;

/// Keeps senders out while the port closes. A sender is counted while it hands a chunk over and
/// waits for it. A closing port turns senders away and waits until they have left.
class Senders
{
public:
    /// A sender. It counts itself first and asks admits() second, and a closing port does the
    /// reverse: one of the two sees the other.
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

    /// Numbers the times between closings. A message belongs to the one in which it began.
    unsigned period() const { return number; }

    /// Whether a message that began in `period` may go on: the port has not begun to close since.
    bool admits(unsigned period) const { return number == period && period % 2 == 0; }

    bool any() const { return inside > 0; }

    void turnAway() { ++number; }
    void readmit() { ++number; }

private:
    std::atomic<unsigned> number{0}; // odd while the port closes
    std::atomic<int> inside{0};
};

#endif
