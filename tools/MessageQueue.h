#ifndef LUMORA_TOOLS_MESSAGEQUEUE_H
#define LUMORA_TOOLS_MESSAGEQUEUE_H

#include <QByteArray>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

/// As good as no end: a time that can still be added to.
const std::chrono::hours kForever(24 * 365 * 10);

struct ReceivedMessage
{
    QByteArray bytes;
    std::chrono::steady_clock::time_point time; ///< when it arrived
    int source;                                 ///< who sent it, as push() was told
};

/// Messages for which there was no room.
struct LostMessages
{
    qint64 messages = 0;
    qint64 bytes = 0;
};

/// Messages on their way from one thread to another. There is a bound to the memory that they take
/// while they wait: what arrives beyond it is counted and dropped.
class MessageQueue
{
public:
    using time_point = std::chrono::steady_clock::time_point;

    /// Takes messages as long as those that wait have less than `capacity` bytes, for which each
    /// counts kMessageCost more than it has. So one message of any length finds room.
    explicit MessageQueue(qint64 capacity) : capacity(capacity) {}

    /// Appends a copy of the message unless it comes at the end or later.
    void push(const void* data, int length, time_point now, int source = 0) noexcept;

    /// What comes at `time` or later does not belong to the queue. An earlier end stays.
    void endAt(time_point time);

    /// Takes the oldest message, for which it waits until `deadline`. False if there is none.
    bool take(ReceivedMessage* message, time_point deadline);

    LostMessages lost() const;

    /// What a short message takes in memory, about.
    static const int kMessageCost = 100;

private:
    static qint64 costOf(qint64 length) { return length + kMessageCost; }

    const qint64 capacity;
    mutable std::mutex mutex; // guards what follows
    std::condition_variable arrived;
    std::deque<ReceivedMessage> queue;
    qint64 used = 0; // the cost of what is in `queue`
    time_point end = time_point::max();
    LostMessages dropped;
};

#endif
