#include "utilities/CircularBuffer.h"

#include <algorithm>

CircularBuffer::CircularBuffer(int capacity)
    : capacity(capacity), bytes(new unsigned char[static_cast<std::size_t>(capacity)]),
      readPosition(0), held(0)
{}

int CircularBuffer::writeInParts(const void* data, int length, int position)
{
    const int count = std::min(length, space());
    if (count <= 0)
        return 0;
    const int first = std::min(count, capacity - position);
    const unsigned char* source = static_cast<const unsigned char*>(data);
    std::memcpy(bytes.get() + position, source, static_cast<std::size_t>(first));
    std::memcpy(bytes.get(), source + first, static_cast<std::size_t>(count - first));
    held += count;
    return count;
}

int CircularBuffer::readInParts(void* data, int length)
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
