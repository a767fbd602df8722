#include "tools/MessageQueue.h"

#include <algorithm>
#include <new>

void MessageQueue::push(const void* data, int length, time_point now, int source) noexcept
{
    {
        const std::lock_guard<std::mutex> guard(mutex);
        if (now >= end)
            return;
        bool taken = used < capacity;
        try {
            if (taken)
                queue.push_back({QByteArray(static_cast<const char*>(data), length), now, source});
        } catch (const std::bad_alloc&) {
            taken = false;
        }
        if (!taken) {
            ++dropped.messages;
            dropped.bytes += length;
            return;
        }
        used += costOf(length);
    }
    arrived.notify_one();
}

void MessageQueue::endAt(time_point time)
{
    const std::lock_guard<std::mutex> guard(mutex);
    end = std::min(end, time);
}

bool MessageQueue::take(ReceivedMessage* message, time_point deadline)
{
    std::unique_lock<std::mutex> guard(mutex);
    if (!arrived.wait_until(guard, deadline, [this] { return !queue.empty(); }))
        return false;
    *message = queue.front();
    queue.pop_front();
    used -= costOf(message->bytes.size());
    return true;
}

LostMessages MessageQueue::lost() const
{
    const std::lock_guard<std::mutex> guard(mutex);
    return dropped;
}
