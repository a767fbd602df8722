#include "transport/MIDIStatus.h"
#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

// Bytes sent as one long message.
static const int kChunkBytes = MIDIHeaderBlock::kBufferSize;

// The pause between the chunks of a message, in which the instrument processes them, in
// milliseconds.
static const DWORD kPauseBetweenChunks = 100;

// A full chunk's time at MIDI's wire speed, 31,250 bits/s at 10 bits per byte, and 40 ms more, in
// milliseconds.
static const DWORD kChunkTime = kChunkBytes * 1000 / 3125 + 40;

// How often to check a chunk that no signal may announce, in milliseconds.
static const DWORD kDoneInterval = 10;

// How long a closing port waits for chunks that its reset did not finish, in milliseconds. Drivers
// take up to 20 ms.
static const DWORD kCloseLimit = 500;

// The device lock, for operations that an observer may call. On the pusher thread it gives up if
// the input is being closed: the closing thread holds the lock and waits for this thread.
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
            Sleep(1); // at time-critical priority, Sleep(0) would leave no core to others
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
    if (!d)
        return nullptr;
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
    if (!d)
        return -1;
    const OutputLocker locker(d);
    if (!locker.isLocked())
        return -1;
    const HMIDIOUT handle = d->hMidiOut;
    if (!handle)
        return -1;
    d->closingOutput = true;
    d->senders.turnAway();
    const bool closed = d->resetAndClose(handle);
    d->hMidiOut = nullptr;
    if (closed && !d->senders.any()) {
        d->freeOutputHeaders();
        ResetEvent(d->doneEvent); // no signal of this port is left for the next one
    } else {
        d->outHeaders.abandon();
        keepModuleLoaded();
    }
    d->senders.readmit();
    d->closingOutput = false;
    return 0;
}

bool TWinMIDIPrivate::resetAndClose(HMIDIOUT handle)
{
    const DWORD start = timeGetTime();
    const auto elapsed = [start] { return timeGetTime() - start; };
    for (;;) {
        // After a refused reset the driver finishes nothing.
        const bool wasReset = midiOutReset(handle) == MMSYSERR_NOERROR;
        // A sender may be inside a driver that returns only after it has played the chunk.
        while ((senders.any() && elapsed() < kChunkTime) ||
               (wasReset && anyChunkInFlight() && elapsed() < kCloseLimit)) {
            SetEvent(doneEvent);
            Sleep(1);
        }
        for (MIDIHDR& header : outHeaders)
            midiOutUnprepareHeader(handle, &header, sizeof header);
        const MMRESULT result = midiOutClose(handle);
        if (result != MIDIERR_STILLPLAYING || !wasReset || elapsed() >= kCloseLimit)
            return result == MMSYSERR_NOERROR;
        Sleep(kDoneInterval);
    }
}

bool TWinMIDIPrivate::anyChunkInFlight() const
{
    return std::any_of(outHeaders.begin(), outHeaders.end(), [](MIDIHDR& header) {
        const DWORD flags = flagsOf(&header);
        return flags != 0 && !(flags & MHDR_DONE);
    });
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

// WinMM's thread or the sender's. Only the header leads to the event of a waiting sender.
void CALLBACK TWinMIDI::MidiOutProc(HMIDIOUT, UINT message, DWORD_PTR, DWORD param1, DWORD)
{
    if (message != MOM_DONE)
        return;
    CallbackGate::enterEach([param1](const CallbackGate& gate) {
        MIDIHDR* const header = gate.device->outHeaders.find(param1);
        const DWORD_PTR event = header ? userOf(header).load() : 0;
        if (event)
            SetEvent(reinterpret_cast<HANDLE>(event));
        return header != nullptr;
    });
}

// Limits the waits of an observer that sends while another thread closes the input: that thread
// waits for the observer and holds the lock that closing the output would need. A chunk still gets
// the time that a working device takes. After the first lost chunk, later ones get none.
class ObserverPatience
{
public:
    explicit ObserverPatience(TWinMIDIPrivate* d) : d(d), observer(d->drainingThread.isCurrent()) {}

    bool isObserver() const { return observer; }

    bool isOver()
    {
        if (!observer || !d->closingInput)
            return false;
        if (!started) {
            started = true;
            start = timeGetTime();
        }
        if (timeGetTime() - start >= kChunkTime)
            d->observersSendLost = true;
        return d->observersSendLost;
    }

private:
    TWinMIDIPrivate* const d;
    const bool observer;
    bool started = false;
    DWORD start = 0;
};

MIDIHDR* TWinMIDIPrivate::takeOutputHeader(unsigned period)
{
    if (!outHeaders.hasData())
        return nullptr;
    ObserverPatience patience(this);
    while (senders.admits(period) && !patience.isOver()) {
        for (MIDIHDR& header : outHeaders) {
            const DWORD flags = flagsOf(&header);
            if (flags == 0)
                return &header;
            if (flags & MHDR_DONE) {
                midiOutUnprepareHeader(hMidiOut, &header, sizeof header);
                return &header;
            }
        }
        Sleep(0); // required: a full pool yields rather than wait for an event
    }
    return nullptr;
}

bool TWinMIDIPrivate::awaitChunk(MIDIHDR* header, unsigned period)
{
    ObserverPatience patience(this);
    DWORD limit = patience.isObserver() ? kDoneInterval : INFINITE;
    bool signalled = false;
    DWORD signalTime = 0;
    while (senders.admits(period) && !patience.isOver()) {
        const DWORD result = WaitForSingleObject(doneEvent, limit);
        if (result == WAIT_FAILED || (flagsOf(header) & MHDR_DONE))
            return true;
        // A header may be taken again before the callback of its last chunk has run, which then
        // signals for this one. If the chunk is still not done after the longest time that it can
        // take, the signal was its own, from a driver that sets no MHDR_DONE.
        if (signalled && timeGetTime() - signalTime >= kChunkTime)
            return true;
        if (result == WAIT_OBJECT_0 && !signalled) {
            signalled = true;
            signalTime = timeGetTime();
            limit = kDoneInterval;
        }
    }
    return false;
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
    const unsigned period = d->senders.period();
    const Senders::Sending sending(&d->senders);
    MIDIHDR* const header = d->takeOutputHeader(period);
    if (!header)
        return false;
    unsigned char* const buffer = d->outHeaders.buffer(header);
    const int statusBytes = status != 0 ? 1 : 0;
    if (statusBytes)
        buffer[0] = static_cast<unsigned char>(status);
    if (length > statusBytes) // a status byte alone has no data
        std::memcpy(buffer + statusBytes, data, static_cast<std::size_t>(length - statusBytes));
    d->outHeaders.attachBuffer(header);
    header->dwBufferLength = static_cast<DWORD>(length);
    flagsOf(header) = 0;
    userOf(header) = wait ? reinterpret_cast<DWORD_PTR>(d->doneEvent) : 0;

    const HMIDIOUT handle = d->hMidiOut;
    if (midiOutPrepareHeader(handle, header, sizeof *header) != MMSYSERR_NOERROR) {
        flagsOf(header) = 0;
        return false;
    }
    if (midiOutLongMsg(handle, header, sizeof *header) != MMSYSERR_NOERROR) {
        // Some drivers complete what they refuse. Their signal must not count for another chunk,
        // and a header that the driver still has is not free.
        if (midiOutUnprepareHeader(handle, header, sizeof *header) != MIDIERR_STILLPLAYING)
            flagsOf(header) = 0;
        if (wait)
            ResetEvent(d->doneEvent);
        return false;
    }
    // The header stays prepared until it is taken again or the port closes.
    return !wait || d->awaitChunk(header, period);
}

bool TWinMIDI::outputData(int length, const void* data)
{
    // outputLongData() only reads, although its signature has no const.
    return data &&
           outputLongData(length,
                          const_cast<unsigned char*>(static_cast<const unsigned char*>(data)), 0);
}

bool TWinMIDI::outputLongData(int length, unsigned char* data, unsigned int status)
{
    long long total = length; // wider: the status byte may come on top of INT_MAX
    if (status != 0)
        ++total;
    if (total < 1 || !d)
        return false;
    const unsigned period = d->senders.period();
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
        if (!d->senders.admits(period))
            return false; // the rest would mean nothing to another port
    }
}

bool TWinMIDI::outputShortData(int length, const unsigned char* data, unsigned int status)
{
    if (!d)
        return false;
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
