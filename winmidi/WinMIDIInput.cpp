#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"

#include <algorithm>
#include <cstring>

// How long a closing port waits for buffers that its reset did not bring back, in milliseconds.
static const DWORD kLateBufferLimit = 1000;

// WinMM's thread. Does as little as it can: queues what it was given and wakes the pusher thread.
void CALLBACK TWinMIDI::MidiInProc(HMIDIIN handle, UINT message, DWORD_PTR instance, DWORD param1,
                                   DWORD)
{
    TWinMIDI* const self = reinterpret_cast<TWinMIDI*>(instance);
    TWinMIDIPrivate* const d = self->d;
    const InputRecord record = {message, param1};
    const int room = message == MIM_DATA ? kShortMessageRoom : int(sizeof record);
    const bool returnsBuffer = message == MIM_LONGDATA || message == MIM_LONGERROR;

    ++d->callbacksRunning;
    if (returnsBuffer)
        --d->buffersOut;
    bool closing;
    {
        const MutexLocker locker(d->recordQueue.mutex());
        // A driver that does not wait for its own thread may still return a buffer of a port that
        // is closed by now; that buffer may be with the next opening already.
        closing = d->closingInput || (returnsBuffer && handle != d->hMidiIn);
        if (!closing && d->recordQueue.space() >= room)
            d->recordQueue.write(&record, sizeof record);
    }
    if (!closing)
        SetEvent(self->dataEvent);
    --d->callbacksRunning; // the last touch: closeInput() may be waiting to let the object go
}

bool TWinMIDIPrivate::addBuffers(HMIDIIN handle)
{
    buffersOut = 0;
    for (MIDIHDR& header : inHeaders) {
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
    ++buffersOut; // before the device may return it
    if (midiInAddBuffer(handle, header, sizeof *header) == MMSYSERR_NOERROR)
        return true;
    --buffersOut;
    return false;
}

void TWinMIDIPrivate::awaitBuffers()
{
    const DWORD start = timeGetTime(); // a Sleep(1) may take 15 ms
    while (buffersOut > 0 && timeGetTime() - start < kLateBufferLimit)
        Sleep(1);
}

void TWinMIDIPrivate::markQueueStale()
{
    const MutexLocker locker(recordQueue.mutex());
    staleRecords = recordQueue.avail() / int(sizeof(InputRecord));
}

bool TWinMIDIPrivate::takeRecord(InputRecord* record)
{
    const MutexLocker locker(recordQueue.mutex());
    if (recordQueue.read(record, sizeof *record) == 0)
        return false;
    if (staleRecords > 0) {
        --staleRecords;
        if (record->message == MIM_LONGDATA || record->message == MIM_LONGERROR)
            record->param = 0;
    }
    return true;
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
    // never lets go of one.
    while (result == MIDIERR_STILLPLAYING && !closingInput) {
        Sleep(0);
        result = midiInUnprepareHeader(handle, header, sizeof *header);
    }
    if (result != MMSYSERR_NOERROR)
        return;
    header->dwFlags = 0;
    header->dwBytesRecorded = 0;
    if (midiInPrepareHeader(handle, header, sizeof *header) == MMSYSERR_NOERROR)
        addBuffer(handle, header);
}

// While the pusher thread drains, it may run observers, and so be the one that calls us.
class DrainMark
{
public:
    explicit DrainMark(TWinMIDIPrivate* d) : thread(d->drainingThread)
    {
        thread = QThread::currentThreadId();
    }
    ~DrainMark() { thread = nullptr; }

    DrainMark(const DrainMark&) = delete;
    DrainMark& operator=(const DrainMark&) = delete;

private:
    std::atomic<Qt::HANDLE>& thread;
};

int TWinMIDI::read(int, const void*, bool strictStart, bool spare)
{
    const DrainMark mark(d);
    unsigned char copy[MIDIHeaderBlock::kBufferSize];
    InputRecord record;
    while (d->takeRecord(&record)) {
        switch (record.message) {
        case MIM_CLOSE:
            return 1; // what is behind it stays queued for the next call
        case MIM_DATA:
            TMIDITransport::read(sizeof record.param, &record.param, strictStart, spare);
            break;
        case MIM_LONGDATA:
            // The buffer is back with the device before any observer runs.
            if (MIDIHDR* const header = d->inHeaders.find(record.param))
                TMIDITransport::read(d->takeLongData(header, copy), copy, strictStart, spare);
            break;
        case MIM_LONGERROR:
            if (MIDIHDR* const header = d->inHeaders.find(record.param))
                d->recycle(header);
            break;
        default:
            break;
        }
    }
    return 0;
}
