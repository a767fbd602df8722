#ifndef LUMORA_TOOLS_RECEIVER_H
#define LUMORA_TOOLS_RECEIVER_H

#include "tools/MessageQueue.h"
#include "transport/MIDITransport.h"

#include <deque>

/// Passes messages from the pusher threads of one or more transports to the main thread. Must
/// outlive the transports.
class Receiver
{
public:
    /// The observer for one more port. Its messages have the port's index, from 0, as source. Main
    /// thread.
    TMIDIReaderRefConInterface* addPort();

    /// Ignores what arrives at `time` or later.
    void endAt(std::chrono::steady_clock::time_point time) { queue.endAt(time); }

    /// Takes the oldest message. False if none arrives before `deadline`. Once the program is asked
    /// to end, takes only what has arrived by then, without waiting.
    bool next(ReceivedMessage* message, std::chrono::steady_clock::time_point deadline);

    /// Throws Failure if messages were lost because they arrived too fast.
    void expectNothingLost() const;

private:
    class Observer final : public TMIDIReaderRefConInterface
    {
    public:
        Observer(MessageQueue& queue, int source) : queue(queue), source(source) {}
        virtual ~Observer() = default;

        /// Pusher thread: copies the message and returns at once. Throws nothing.
        int read(int length, const void* data, bool strictStart, bool spare) override;

    private:
        MessageQueue& queue;
        const int source;
    };

    static const qint64 kCapacity = 64 << 20;

    MessageQueue queue{kCapacity};
    std::deque<Observer> observers; // whose addresses stay valid
};

#endif
