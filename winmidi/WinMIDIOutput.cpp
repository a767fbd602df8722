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

// A queued header belongs to the driver, whose thread sets its flags while the pool is being
// scanned, and whose callback may read dwUser as late as when the header is taken again.
static std::atomic<DWORD>& flagsOf(MIDIHDR* header)
{
    return *reinterpret_cast<std::atomic<DWORD>*>(reinterpret_cast<char*>(header) +
                                                  offsetof(MIDIHDR, dwFlags));
}

static std::atomic<DWORD_PTR>& userOf(MIDIHDR* header)
{
    return *reinterpret_cast<std::atomic<DWORD_PTR>*>(reinterpret_cast<char*>(header) +
                                                      offsetof(MIDIHDR, dwUser));
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
        Sleep(0);
    }
}

bool TWinMIDIPrivate::awaitChunk(MIDIHDR* header, unsigned closings)
{
    // Counted first and looked at second, the other way round than releaseSenders() does it: one of
    // the two sees the other.
    ++sendersWaiting;
    if (outputClosings == closings) {
        DWORD result = WaitForSingleObject(doneEvent, INFINITE);
        // A header may be taken again before the callback of its last chunk has run, which then
        // signals for this one. The true signal may have joined it, so this wait is not endless.
        while (result != WAIT_FAILED && outputClosings == closings &&
               !(flagsOf(header) & MHDR_DONE))
            result = WaitForSingleObject(doneEvent, kDoneInterval);
    }
    --sendersWaiting;
    return outputClosings == closings;
}

void TWinMIDIPrivate::releaseSenders()
{
    ++outputClosings;
    const DWORD start = timeGetTime();
    while (sendersWaiting > 0 && timeGetTime() - start < kReleaseLimit) {
        SetEvent(doneEvent);
        Sleep(1);
    }
    // No signal of the closed port is left for a sender on the next one, but for one that is so
    // late that it still needs it.
    if (sendersWaiting == 0)
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
    const unsigned closings = d->outputClosings;
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
    const unsigned closings = d->outputClosings;
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
        if (d->outputClosings != closings)
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
