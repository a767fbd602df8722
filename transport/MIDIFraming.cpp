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
    return observerBlock->frame(length, data, strictStart, &lock, terminated);
}

int TMIDIObserverBlock::frame(int length, const void* data, bool strictStart,
                              lumora::RecursiveMutex* lock, const std::atomic<bool>& terminated)
{
    const lumora::RecursiveMutexLocker locker(lock);
    if (terminated || length < 1)
        return length;
    if (isChannelStatus(*static_cast<const unsigned char*>(data)))
        deliver(length, data, true, terminated);
    else
        assemble(length, data, strictStart, terminated);
    return length;
}

void TMIDIObserverBlock::assemble(int length, const void* data, bool strictStart,
                                  const std::atomic<bool>& terminated)
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(data);
    const bool endsSysEx = bytes[length - 1] == kSysExEnd;
    const bool mayStart = !strictStart || bytes[0] == kSysExStart;

    if (!pendingSysEx && !mayStart)
        return;
    if (!pendingSysEx && endsSysEx) {
        // Whole in one chunk: the caller's bytes, no copy.
        deliver(length, data, strictStart, terminated);
        return;
    }
    append(length, data);
    if (!pendingSysEx || !endsSysEx)
        return;
    // A shared copy keeps the bytes valid, whatever an observer does to the transport.
    const QByteArray message = *pendingSysEx;
    deliver(static_cast<int>(message.size()), message.constData(), strictStart, terminated);
    pendingSysEx.reset();
}

void TMIDIObserverBlock::append(int length, const void* data)
{
    try {
        if (!pendingSysEx)
            pendingSysEx = std::make_unique<QByteArray>();
        if (pendingSysEx->size() > INT_MAX - length)
            throw std::bad_alloc(); // too long for the observers' int
        pendingSysEx->append(static_cast<const char*>(data), length);
    } catch (const std::bad_alloc&) {
        // A message with a gap must not be delivered. Its remaining chunks do not begin with F0, so
        // they are dropped.
        pendingSysEx.reset();
    }
}
