#ifndef LUMORA_TOOLS_RECEIVER_H
#define LUMORA_TOOLS_RECEIVER_H

#include "tools/MessageQueue.h"
#include "transport/MIDITransport.h"

#include <deque>

/// Hands messages from the pusher threads of one or more transports to the main thread. An observer
/// stays registered as long as its transport lives, and so must this.
class Receiver
{
public:
    /// The observer for one more port; what it takes has the number of such calls before as source.
    /// Main thread.
    TMIDIReaderRefConInterface* addPort();

    /// What arrives at `time` or later is not taken.
    void endAt(std::chrono::steady_clock::time_point time) { queue.endAt(time); }

    /// Takes the oldest message. False if none comes until `deadline`. Once the program is asked to
    /// end it waits no longer: it gives what has arrived, and that no more grows.
    bool next(ReceivedMessage* message, std::chrono::steady_clock::time_point deadline);

    /// Throws Failure if messages were lost because they came faster than they were taken.
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
    std::deque<Observer> observers; // which stay where they are
};

#endif
