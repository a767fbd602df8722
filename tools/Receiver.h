#ifndef LUMORA_TOOLS_RECEIVER_H
#define LUMORA_TOOLS_RECEIVER_H

#include "transport/MIDITransport.h"

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
    std::chrono::steady_clock::time_point time; ///< when the observer was called
};

/// An observer that hands messages from the transport's pusher thread to the main thread. An
/// observer stays registered as long as its transport lives, and so must this.
class Receiver final : public TMIDIReaderRefConInterface
{
public:
    virtual ~Receiver() = default;

    /// Pusher thread: copies the message and returns at once.
    int read(int length, const void* data, bool strictStart, bool spare) override;

    /// Takes the oldest message. False if none comes until `deadline` or the program is asked to
    /// end.
    bool next(ReceivedMessage* message, std::chrono::steady_clock::time_point deadline);

private:
    std::mutex mutex; // guards `queue`
    std::condition_variable arrived;
    std::deque<ReceivedMessage> queue;
};

#endif
