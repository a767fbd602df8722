#ifndef LUMORA_UTILITIES_CIRCULARBUFFER_H
#define LUMORA_UTILITIES_CIRCULARBUFFER_H

#include <QMutex>
#include <cstring>
#include <memory>

/// A byte ring buffer. Its whole capacity is usable.
///
/// The operations take no lock. Threads that share a buffer hold `mutex()` around compound
/// operations, such as "test for room, then write a record".
class CircularBuffer
{
public:
    /// Allocates `capacity` bytes; throws std::bad_alloc without memory.
    explicit CircularBuffer(int capacity);

    /// @{
    /// A lock cannot be copied.
    CircularBuffer(const CircularBuffer&) = delete;
    CircularBuffer& operator=(const CircularBuffer&) = delete;
    /// @}

    /// Appends up to `length` bytes, as many as there is room for; returns how many.
    int write(const void* data, int length)
    {
        const int position = writePosition();
        if (length <= 0 || length > space() || length > capacity - position)
            return writeInParts(data, length, position);
        std::memcpy(bytes.get() + position, data, static_cast<std::size_t>(length));
        held += length;
        return length;
    }

    /// Removes up to `length` of the oldest bytes, as many as are held; returns how many.
    int read(void* data, int length)
    {
        if (length <= 0 || length > held || length >= capacity - readPosition)
            return readInParts(data, length);
        std::memcpy(data, bytes.get() + readPosition, static_cast<std::size_t>(length));
        readPosition += length;
        held -= length;
        return length;
    }

    /// Bytes held, from 0 to the capacity.
    int avail() const { return held; }

    /// Bytes that can still be written.
    int space() const { return capacity - held; }

    /// The lock for threads that share this buffer; not recursive.
    QMutex* mutex() { return &lock; }

private:
    // Partial copies, and those across the end of the memory. The usual case is inline, so that a
    // record's fixed length makes the copy one or two instructions.
    int writeInParts(const void* data, int length, int position);
    int readInParts(void* data, int length);

    // Avoids readPosition + held, which may be up to twice the capacity.
    int writePosition() const
    {
        const int untilEnd = capacity - readPosition;
        return held < untilEnd ? readPosition + held : held - untilEnd;
    }

    QMutex lock;
    const int capacity;
    const std::unique_ptr<unsigned char[]> bytes;
    int readPosition;
    int held;
};

#endif
