#include "transport/MIDIStatus.h"
#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

// Bytes sent as one long message.
static const int kChunkBytes = MIDIHeaderBlock::kBufferSize;

// Between the chunks of a message the instrument gets this long to take them in, in milliseconds.
static const DWORD kPauseBetweenChunks = 100;

// After a signal that was not the chunk's own, how often it is looked whether the chunk is done, in
// milliseconds.
static const DWORD kDoneInterval = 10;

// How long a closing port waits for senders to wake, in milliseconds. Only one whose thread was
// ended from outside does not.
static const DWORD kReleaseLimit = 1000;

// How often an output that still plays is reset and closed. A sender pauses 100 ms between chunks,
// so the second attempt finds the port quiet. More is for a device that never is.
static const int kCloseAttempts = 10;

// The device lock, for the operations that an observer may call. On the pusher thread it is given
// up if the input is being closed: the closing thread holds the lock and waits for this very
// thread.
class OutputLocker
{
public:
    explicit OutputLocker(TWinMIDIPrivate* d) : mutex(d->mutex), held(true)
    {
        if (!d->drainingThread.isCurrent()) {
            mutex.lock();
            return;
        }
        while (!mutex.tryLock()) {
            if (d->closingInput) {
                held = false;
                return;
            }
            Sleep(1); // of time-critical priority, it would leave no one else a core
        }
    }
    ~OutputLocker()
    {
        if (held)
            mutex.unlock();
    }

    OutputLocker(const OutputLocker&) = delete;
    OutputLocker& operator=(const OutputLocker&) = delete;

    bool isLocked() const { return held; }

private:
    lumora::RecursiveMutex& mutex;
    bool held;
};

void* TWinMIDI::openOutput(int port)
{
    if (port < 1)
        return d->hMidiOut;
    const OutputLocker locker(d);
    if (!locker.isLocked())
        return nullptr;
    HMIDIOUT handle = nullptr;
    if (midiOutOpen(&handle, static_cast<UINT>(port) - 1, reinterpret_cast<DWORD_PTR>(&MidiOutProc),
                    0, CALLBACK_FUNCTION) != MMSYSERR_NOERROR)
        handle = nullptr;
    d->hMidiOut = handle;
    return handle;
}

int TWinMIDI::closeOutput()
{
    const OutputLocker locker(d);
    if (!locker.isLocked())
        return -1;
    const HMIDIOUT handle = d->hMidiOut;
    if (!handle)
        return -1;
    d->closingOutput = true;
    MMRESULT result;
    int attempts = 0;
    do {
        midiOutReset(handle);
        for (MIDIHDR& header : d->outHeaders)
            midiOutUnprepareHeader(handle, &header, sizeof header);
        result = midiOutClose(handle);
        // A thread that is sending may have put a chunk behind the reset, which keeps the port
        // open.
    } while (result == MIDIERR_STILLPLAYING && ++attempts < kCloseAttempts);
    d->hMidiOut = nullptr; // first: a sender that is given a free header finds no port
    d->freeOutputHeaders();
    d->senders.release(d->doneEvent);
    d->closingOutput = false;
    return 0;
}

static void pauseBetweenChunks()
{
    const DWORD start = timeGetTime();
    DWORD elapsed = 0;
    do {
        Sleep(kPauseBetweenChunks - elapsed);
        elapsed = timeGetTime() - start;
    } while (elapsed < kPauseBetweenChunks);
}

// WinMM's thread. Finds the event of a waiting sender through the header alone.
void CALLBACK TWinMIDI::MidiOutProc(HMIDIOUT, UINT message, DWORD_PTR, DWORD param1, DWORD)
{
    MIDIHDR* const header = reinterpret_cast<MIDIHDR*>(static_cast<DWORD_PTR>(param1));
    if (message != MOM_DONE || !header)
        return;
    if (const DWORD_PTR event = userOf(header))
        SetEvent(reinterpret_cast<HANDLE>(event));
}

MIDIHDR* TWinMIDIPrivate::takeOutputHeader()
{
    if (!outHeaders.hasData())
        return nullptr;
    for (;;) {
        for (MIDIHDR& header : outHeaders) {
            const DWORD flags = flagsOf(&header);
            if (flags == 0)
                return &header;
            if (flags & MHDR_DONE) {
                midiOutUnprepareHeader(hMidiOut, &header, sizeof header);
                return &header;
            }
        }
        Sleep(0); // required: a full pool yields, it does not wait for an event
    }
}

bool TWinMIDIPrivate::awaitChunk(MIDIHDR* header, unsigned closings)
{
    const Senders::Waiting waiting(&senders);
    if (senders.closedSince(closings))
        return false;
    DWORD result = WaitForSingleObject(doneEvent, INFINITE);
    // A header may be taken again before the callback of its last chunk has run, which then signals
    // for this one. The true signal may have joined it, so this wait is not endless.
    while (result != WAIT_FAILED && !senders.closedSince(closings) &&
           !(flagsOf(header) & MHDR_DONE))
        result = WaitForSingleObject(doneEvent, kDoneInterval);
    return !senders.closedSince(closings);
}

void Senders::release(HANDLE doneEvent)
{
    ++closed;
    const DWORD start = timeGetTime();
    while (waiting > 0 && timeGetTime() - start < kReleaseLimit) {
        SetEvent(doneEvent);
        Sleep(1);
    }
    // No signal of the closed port is left for a sender on the next one, but for one that is so
    // late that it still needs it.
    if (waiting == 0)
        ResetEvent(doneEvent);
}

void TWinMIDIPrivate::freeOutputHeaders()
{
    for (MIDIHDR& header : outHeaders) {
        flagsOf(&header) = 0;
        userOf(&header) = 0;
    }
}

bool TWinMIDI::outputLongData2(int length, const unsigned char* data, unsigned int status,
                               bool wait)
{
    const unsigned closings = d->senders.closings();
    MIDIHDR* const header = d->takeOutputHeader();
    if (!header)
        return false;
    unsigned char* const buffer = d->outHeaders.buffer(header);
    const int statusBytes = status != 0 ? 1 : 0;
    if (statusBytes)
        buffer[0] = static_cast<unsigned char>(status);
    if (length > statusBytes) // a status alone comes without data
        std::memcpy(buffer + statusBytes, data, static_cast<std::size_t>(length - statusBytes));
    header->dwBufferLength = static_cast<DWORD>(length);
    flagsOf(header) = 0;
    userOf(header) = wait ? reinterpret_cast<DWORD_PTR>(d->doneEvent) : 0;

    const HMIDIOUT handle = d->hMidiOut;
    if (midiOutPrepareHeader(handle, header, sizeof *header) != MMSYSERR_NOERROR) {
        flagsOf(header) = 0;
        return false;
    }
    if (midiOutLongMsg(handle, header, sizeof *header) != MMSYSERR_NOERROR) {
        midiOutUnprepareHeader(handle, header, sizeof *header);
        flagsOf(header) = 0;
        return false;
    }
    // The header stays prepared until it is taken again or the port closes.
    return !wait || d->awaitChunk(header, closings);
}

bool TWinMIDI::outputData(int length, const void* data)
{
    // The signature of the long sender is older than const; it only reads.
    return data &&
           outputLongData(length,
                          const_cast<unsigned char*>(static_cast<const unsigned char*>(data)), 0);
}

bool TWinMIDI::outputLongData(int length, unsigned char* data, unsigned int status)
{
    long long total = length; // wider: the status byte may come on top of the longest int
    if (status != 0)
        ++total;
    if (total < 1)
        return false;
    const unsigned closings = d->senders.closings();
    for (;;) {
        const int chunk = static_cast<int>(std::min<long long>(total, kChunkBytes));
        const bool wait = total > kChunkBytes;
        const bool ok = outputLongData2(chunk, data, status, wait);
        total -= chunk;
        if (total == 0 || !ok)
            return ok;
        data += status != 0 ? chunk - 1 : chunk;
        status = 0;
        pauseBetweenChunks();
        if (d->senders.closedSince(closings))
            return false; // the rest is nothing that another port could understand
    }
}

bool TWinMIDI::outputShortData(int length, const unsigned char* data, unsigned int status)
{
    DWORD word = status | DWORD(data[0]) << 8;
    if (length != 1)
        word |= DWORD(data[1]) << 16;
    return midiOutShortMsg(d->hMidiOut, word) == MMSYSERR_NOERROR;
}

bool TWinMIDI::outputData(int length, unsigned char* data, unsigned int status)
{
    return isChannelStatus(status) ? outputShortData(length, data, status)
                                   : outputLongData(length, data, status);
}
