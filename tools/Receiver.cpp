#include "tools/Receiver.h"

#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/Text.h"

#include <algorithm>

using std::chrono::steady_clock;

int Receiver::Observer::read(int length, const void* data, bool, bool)
{
    queue.push(data, length, steady_clock::now(), source);
    return length;
}

TMIDIReaderRefConInterface* Receiver::addPort()
{
    observers.emplace_back(queue, static_cast<int>(observers.size()));
    return &observers.back();
}

bool Receiver::next(ReceivedMessage* message, steady_clock::time_point deadline)
{
    // Ctrl-C arrives on another thread, which does not signal the queue.
    const std::chrono::milliseconds poll(kInterruptionPollMs);
    while (!interrupted()) {
        const auto now = steady_clock::now();
        if (queue.take(message, std::min(deadline, now + poll)))
            return true;
        if (now >= deadline)
            return false;
    }
    const auto now = steady_clock::now();
    queue.endAt(now);
    return queue.take(message, now);
}

void Receiver::expectNothingLost() const
{
    const LostMessages lost = queue.lost();
    if (lost.messages > 0)
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("%1, %2, lost: they arrived too fast.")
                          .arg(counted(lost.messages, "message"), counted(lost.bytes, "byte"))};
}
