#ifndef LUMORA_UTILITIES_CIRCULARBUFFER_H
#define LUMORA_UTILITIES_CIRCULARBUFFER_H

#include <QMutex>
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
    int write(const void* data, int length);

    /// Takes out up to `length` of the oldest bytes, as many as are held; returns how many.
    int read(void* data, int length);

    /// Bytes held, from 0 to the capacity.
    int avail() const { return held; }

    /// Bytes that can still be written.
    int space() const { return capacity - held; }

    /// The lock of everyone who shares this buffer; the buffer's own, not recursive.
    QMutex* mutex() { return &lock; }

private:
    QMutex lock;
    const int capacity;
    const std::unique_ptr<unsigned char[]> bytes;
    int readPosition;
    int held;
};

#endif
