#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"

#include <algorithm>
#include <cstring>
#include <mutex>

// How long a closing port waits for buffers that its reset did not return, in milliseconds.
static const DWORD kLateBufferLimit = 1000;

// Failures while an input is opened. Caught in openInput().
enum errCode { notOpened = 0, bufferNotAdded = 1, notStarted = 2 };

void* TWinMIDI::openInput(int port)
{
    if (!d)
        return nullptr;
    if (d->drainingThread.isCurrent())
        return port < 1 ? d->hMidiIn.load() : nullptr;
    const lumora::RecursiveMutexLocker locker(&d->mutex);
    if (port < 1)
        return d->hMidiIn;
    try {
        HMIDIIN handle = nullptr;
        if (midiInOpen(&handle, static_cast<UINT>(port) - 1,
                       reinterpret_cast<DWORD_PTR>(&MidiInProc), reinterpret_cast<DWORD_PTR>(this),
                       CALLBACK_FUNCTION) != MMSYSERR_NOERROR)
            throw notOpened;
        d->hMidiIn = handle;
        d->dropNotices();
        if (!d->addBuffers(handle))
            throw bufferNotAdded;
        if (midiInStart(handle) != MMSYSERR_NOERROR)
            throw notStarted;
        startPusherThread();
    } catch (errCode) {
        closeInput();
        d->hMidiIn = nullptr;
    }
    return d->hMidiIn;
}

int TWinMIDI::closeInput()
{
    if (!d || d->drainingThread.isCurrent())
        return -1;
    const lumora::RecursiveMutexLocker locker(&d->mutex);
    const HMIDIIN handle = d->hMidiIn;
    if (!handle)
        return -1;
    d->closingInput = true;
    stopPusherThread();
    midiInStop(handle);
    d->hMidiIn = nullptr;
    // A device that was pulled out refuses and returns nothing.
    if (midiInReset(handle) == MMSYSERR_NOERROR)
        d->awaitBuffers();
    for (MIDIHDR& header : d->inHeaders)
        midiInUnprepareHeader(handle, &header, sizeof header);
    const bool closed = midiInClose(handle) == MMSYSERR_NOERROR;
    d->gate->awaitCallbacks();
    if (!closed) {
        d->inHeaders.abandon();
        keepModuleLoaded();
    }
    d->observersSendLost = false;
    d->closingInput = false;
    return 0;
}

inline bool TWinMIDIPrivate::receive(const InputRecord& record)
{
    int room = kShortMessageRoom;
    if (record.message != MIM_DATA) {
        room = sizeof record;
        if (record.returnsBuffer() && returnedHeader(record.param))
            buffersOut.takeBack();
    }
    const std::lock_guard<QMutex> guard(*recordQueue.mutex()); // cheaper here than Qt's own
    if (closingInput)
        return false;
    if (recordQueue.space() >= room)
        recordQueue.write(&record, sizeof record);
    return true;
}

// WinMM's thread. Does as little as it can: queues its parameters and wakes the pusher thread.
void CALLBACK TWinMIDI::MidiInProc(HMIDIIN, UINT message, DWORD_PTR instance, DWORD param1, DWORD)
{
    CallbackGate::enter(reinterpret_cast<TWinMIDI*>(instance), [&](const CallbackGate& gate) {
        if (gate.device->receive({message, param1}))
            SetEvent(gate.dataEvent);
    });
}

bool TWinMIDIPrivate::addBuffers(HMIDIIN handle)
{
    buffersOut.reset();
    for (MIDIHDR& header : inHeaders) {
        inHeaders.attachBuffer(&header);
        header.dwFlags = 0;
        header.dwBytesRecorded = 0;
        header.dwUser = 0;
        header.lpNext = nullptr;
        header.dwOffset = 0;
        midiInPrepareHeader(handle, &header, sizeof header);
        if (!addBuffer(handle, &header))
            return false;
    }
    return true;
}

bool TWinMIDIPrivate::addBuffer(HMIDIIN handle, MIDIHDR* header)
{
    buffersOut.give();
    if (midiInAddBuffer(handle, header, sizeof *header) == MMSYSERR_NOERROR)
        return true;
    buffersOut.takeBack();
    return false;
}

void TWinMIDIPrivate::awaitBuffers() const
{
    const DWORD start = timeGetTime(); // not by counting: a Sleep(1) may take 15 ms
    while (buffersOut.any() && timeGetTime() - start < kLateBufferLimit)
        Sleep(1);
}

int TWinMIDI::read(int, const void*, bool strictStart, bool spare)
{
    const auto frame = [&](int length, const void* data) {
        TMIDITransport::read(length, data, strictStart, spare);
    };
    return d ? d->drain(frame) : 0;
}

template <class Frame>
int TWinMIDIPrivate::drain(const Frame& frame)
{
    const DrainingThread::Mark mark(&drainingThread);
    unsigned char copy[MIDIHeaderBlock::kBufferSize];
    InputRecord record;
    while (takeRecord(&record)) {
        switch (record.message) {
        case MIM_CLOSE:
            return 1; // later records stay queued for the next call
        case MIM_DATA:
            frame(sizeof record.param, &record.param);
            break;
        case MIM_LONGDATA:
            // The device has the buffer again before any observer runs.
            if (MIDIHDR* const header = returnedHeader(record.param))
                frame(takeLongData(header, copy), copy);
            break;
        case MIM_LONGERROR:
            if (MIDIHDR* const header = returnedHeader(record.param))
                recycle(header);
            break;
        default:
            break;
        }
    }
    return 0;
}

void TWinMIDIPrivate::dropNotices()
{
    const lumora::MutexLocker locker(recordQueue.mutex());
    InputRecord record;
    for (int held = recordQueue.avail() / int(sizeof record); held > 0; --held) {
        recordQueue.read(&record, sizeof record);
        if (!record.returnsBuffer())
            recordQueue.write(&record, sizeof record);
    }
}

bool TWinMIDIPrivate::takeRecord(InputRecord* record)
{
    const lumora::MutexLocker locker(recordQueue.mutex());
    if (recordQueue.avail() == 0)
        return false;
    recordQueue.read(record, sizeof *record);
    return true;
}

MIDIHDR* TWinMIDIPrivate::returnedHeader(DWORD address) const
{
    MIDIHDR* const header = inHeaders.find(address);
    const DWORD state = header ? flagsOf(header) & (MHDR_INQUEUE | MHDR_DONE) : MHDR_INQUEUE;
    return state == MHDR_INQUEUE ? nullptr : header;
}

int TWinMIDIPrivate::takeLongData(MIDIHDR* header,
                                  unsigned char (&copy)[MIDIHeaderBlock::kBufferSize])
{
    // A broken driver may claim more than the buffer holds.
    const DWORD length = std::min<DWORD>(header->dwBytesRecorded, sizeof copy);
    std::memcpy(copy, inHeaders.buffer(header), length);
    recycle(header);
    return static_cast<int>(length);
}

void TWinMIDIPrivate::recycle(MIDIHDR* header)
{
    const HMIDIIN handle = hMidiIn;
    MMRESULT result = midiInUnprepareHeader(handle, header, sizeof *header);
    // A closing port reclaims all its buffers itself, and must not wait here for a device that
    // never returns one.
    while (result == MIDIERR_STILLPLAYING && !closingInput) {
        Sleep(0); // required: yields and retries without limit
        result = midiInUnprepareHeader(handle, header, sizeof *header);
    }
    if (result != MMSYSERR_NOERROR)
        return;
    inHeaders.attachBuffer(header);
    header->dwFlags = 0;
    header->dwBytesRecorded = 0;
    if (midiInPrepareHeader(handle, header, sizeof *header) == MMSYSERR_NOERROR)
        addBuffer(handle, header);
}
