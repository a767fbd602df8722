#ifndef LUMORA_TOOLS_MESSAGEQUEUE_H
#define LUMORA_TOOLS_MESSAGEQUEUE_H

#include <QByteArray>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

/// Practically for ever, but short enough to add to a time.
const std::chrono::hours kForever(24 * 365 * 10);

struct ReceivedMessage
{
    QByteArray bytes;
    std::chrono::steady_clock::time_point time; ///< when it arrived
    int source;                                 ///< as passed to push()
};

/// Messages that found no room.
struct LostMessages
{
    qint64 messages = 0;
    qint64 bytes = 0;
};

/// Passes messages from one thread to another. Bounds the memory of waiting messages: counts and
/// drops what exceeds it.
class MessageQueue
{
public:
    using time_point = std::chrono::steady_clock::time_point;

    /// Takes messages while those that wait cost less than `capacity`, each its length plus
    /// kMessageCost. So an empty queue takes a message of any length.
    explicit MessageQueue(qint64 capacity) : capacity(capacity) {}

    /// Appends a copy of the message, unless `now` is at or after the end.
    void push(const void* data, int length, time_point now, int source = 0) noexcept;

    /// Ends the queue: it ignores what arrives at `time` or later. An earlier end stays.
    void endAt(time_point time);

    /// Takes the oldest message; waits for one until `deadline`. False if there is none.
    bool take(ReceivedMessage* message, time_point deadline);

    LostMessages lost() const;

    /// The approximate memory of a short message.
    static const int kMessageCost = 100;

private:
    static qint64 costOf(qint64 length) { return length + kMessageCost; }

    const qint64 capacity;
    mutable std::mutex mutex; // guards what follows
    std::condition_variable arrived;
    std::deque<ReceivedMessage> queue;
    qint64 used = 0; // the total cost of `queue`
    time_point end = time_point::max();
    LostMessages dropped;
};

#endif
