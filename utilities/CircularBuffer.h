#ifndef LUMORA_UTILITIES_CIRCULARBUFFER_H
#define LUMORA_UTILITIES_CIRCULARBUFFER_H

#include <QMutex>
#include <cstring>
#include <memory>

/// A byte ring buffer. Its whole capacity is usable.
///
/// The operations take no lock. Users that share a buffer between threads hold `mutex()` around
/// their compound operations, such as "test for room, then write a record".
class CircularBuffer
{
public:
    /// Allocates `capacity` bytes; throws std::bad_alloc if there is no memory.
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

    /// Takes out up to `length` of the oldest bytes, as many as are held; returns how many.
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

    /// The lock of everyone who shares this buffer; the buffer's own, not recursive.
    QMutex* mutex() { return &lock; }

private:
    // Everything but the usual case, which is inline so that a record's fixed length makes the copy
    // a matter of an instruction or two: in full or in part, and round the end of the memory.
    int writeInParts(const void* data, int length, int position);
    int readInParts(void* data, int length);

    // Computed without a sum that could pass the capacity: readPosition + held may be up to twice
    // it.
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
