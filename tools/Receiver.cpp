#include "tools/Receiver.h"

#include "tools/Interruption.h"

#include <algorithm>

int Receiver::read(int length, const void* data, bool, bool)
{
    const ReceivedMessage message = {QByteArray(static_cast<const char*>(data), length),
                                     std::chrono::steady_clock::now()};
    {
        const std::lock_guard<std::mutex> guard(mutex);
        queue.push_back(message);
    }
    arrived.notify_one();
    return length;
}

bool Receiver::next(ReceivedMessage* message, std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock<std::mutex> guard(mutex);
    while (queue.empty()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline || interrupted())
            return false;
        // Ctrl-C comes on a thread that knows nothing of this queue.
        arrived.wait_until(
            guard, std::min(deadline, now + std::chrono::milliseconds(kInterruptionPollMs)));
    }
    *message = queue.front();
    queue.pop_front();
    return true;
}
