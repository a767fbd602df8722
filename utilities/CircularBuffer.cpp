#include "utilities/CircularBuffer.h"

#include <algorithm>
#include <cstring>

CircularBuffer::CircularBuffer(int capacity)
    : capacity(capacity), bytes(new unsigned char[static_cast<std::size_t>(capacity)]),
      readPosition(0), held(0)
{}

int CircularBuffer::write(const void* data, int length)
{
    const int count = std::min(length, space());
    if (count <= 0)
        return 0;
    // Computed without a sum that could pass the capacity: readPosition + held may be up to twice
    // it.
    const int untilEnd = capacity - readPosition;
    const int writePosition = held < untilEnd ? readPosition + held : held - untilEnd;
    const int first = std::min(count, capacity - writePosition);
    const unsigned char* source = static_cast<const unsigned char*>(data);
    std::memcpy(bytes.get() + writePosition, source, static_cast<std::size_t>(first));
    std::memcpy(bytes.get(), source + first, static_cast<std::size_t>(count - first));
    held += count;
    return count;
}

int CircularBuffer::read(void* data, int length)
{
    const int count = std::min(length, held);
    if (count <= 0)
        return 0;
    const int first = std::min(count, capacity - readPosition);
    unsigned char* target = static_cast<unsigned char*>(data);
    std::memcpy(target, bytes.get() + readPosition, static_cast<std::size_t>(first));
    std::memcpy(target + first, bytes.get(), static_cast<std::size_t>(count - first));
    readPosition = first < count ? count - first : (readPosition + count) % capacity;
    held -= count;
    return count;
}
