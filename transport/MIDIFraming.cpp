#include "transport/MIDIObserverBlock.h"
#include "transport/MIDIStatus.h"

#include <climits>
#include <new>

int TMIDITransport::midi_msg_length(unsigned char status) const
{
    switch (status & 0xF0) {
    case 0x80:
    case 0x90:
    case 0xA0:
    case 0xB0:
    case 0xE0:
        return 3;
    case 0xC0:
    case 0xD0:
        return 2;
    default:
        return 1;
    }
}

int TMIDITransport::read(int length, const void* data, bool strictStart, bool)
{
    const RecursiveMutexLocker locker(&lock);
    if (terminated || length < 1)
        return length;
    if (isChannelStatus(*static_cast<const unsigned char*>(data)))
        observerBlock->deliver(length, data, true, terminated);
    else
        observerBlock->assemble(length, data, strictStart, terminated);
    return length;
}

void TMIDIObserverBlock::assemble(int length, const void* data, bool strictStart,
                                  const std::atomic<bool>& terminated)
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(data);
    const bool endsSysEx = bytes[length - 1] == kSysExEnd;
    const bool mayStart = !strictStart || bytes[0] == kSysExStart;

    if (!pendingSysEx) {
        if (!mayStart)
            return;
        if (endsSysEx) {
            // Whole in one chunk: the caller's bytes, no copy.
            deliver(length, data, strictStart, terminated);
            return;
        }
    }
    try {
        if (!pendingSysEx)
            pendingSysEx = new QByteArray;
        if (pendingSysEx->size() > INT_MAX - length)
            throw std::bad_alloc(); // observers could not be told its length
        pendingSysEx->append(static_cast<const char*>(data), length);
    } catch (const std::bad_alloc&) {
        // A message with a hole must not be delivered: what is left of it is no SysEx start.
        delete pendingSysEx;
        pendingSysEx = nullptr;
        return;
    }
    if (!endsSysEx)
        return;
    // Shares the bytes, so that they stay put whatever an observer does to the transport.
    const QByteArray message = *pendingSysEx;
    deliver(static_cast<int>(message.size()), message.constData(), strictStart, terminated);
    delete pendingSysEx;
    pendingSysEx = nullptr;
}

void TMIDIObserverBlock::deliver(int length, const void* data, bool strictStart,
                                 const std::atomic<bool>& terminated)
{
    for (uint i = 0; i < observers.count() && !terminated; ++i) {
        if (TMIDIReaderRefConInterface* observer = observers.at(i))
            observer->read(length, data, strictStart, false);
    }
}
