#ifndef LUMORA_TOOLS_RECEIVER_H
#define LUMORA_TOOLS_RECEIVER_H

#include "tools/MessageQueue.h"
#include "transport/MIDITransport.h"

/// An observer that hands messages from the transport's pusher thread to the main thread. An
/// observer stays registered as long as its transport lives, and so must this.
class Receiver final : public TMIDIReaderRefConInterface
{
public:
    virtual ~Receiver() = default;

    /// Pusher thread: copies the message and returns at once. Throws nothing.
    int read(int length, const void* data, bool strictStart, bool spare) override;

    /// What arrives at `time` or later is not taken.
    void endAt(std::chrono::steady_clock::time_point time) { queue.endAt(time); }

    /// Takes the oldest message. False if none comes until `deadline`. Once the program is asked to
    /// end it waits no longer: it gives what has arrived, and that no more grows.
    bool next(ReceivedMessage* message, std::chrono::steady_clock::time_point deadline);

    /// Throws Failure if messages were lost because they came faster than they were taken.
    void expectNothingLost() const;

private:
    static const qint64 kCapacity = 64 << 20;

    MessageQueue queue{kCapacity};
};

#endif
