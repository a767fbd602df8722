#ifndef LUMORA_WINMIDI_WINMIDIPRIVATE_H
#define LUMORA_WINMIDI_WINMIDIPRIVATE_H

#include "qt/RecursiveMutex.h"
#include "utilities/CircularBuffer.h"
#include "winmidi/MIDIHeaderBlock.h"

#include <atomic>

/// Input buffers: together 3 MB of SysEx that can arrive while nobody takes it out.
static const unsigned int kInputHeaders = 768;

/// Output buffers: that many chunks can be queued in WinMM at once.
static const unsigned int kOutputHeaders = 8;

/// What the input callback keeps of each call. The time stamp is not kept.
struct InputRecord
{
    DWORD message; ///< WinMM's message code, MIM_…
    DWORD param;   ///< the packed short message, or the address of the returned header
};
static_assert(sizeof(InputRecord) == 8, "a record is two items of 4 bytes");

/// Room for 65,536 records.
static const int kQueueBytes = 0x80000;

/// A short message is queued only while this much is free, 6,160 bytes, so that the notices that
/// hand all the input buffers back always find room: a lost notice would be a lost buffer. The two
/// more are for messages of other kinds.
static const int kShortMessageRoom = int((kInputHeaders + 2) * sizeof(InputRecord));

/// The device state of a TWinMIDI.
struct TWinMIDIPrivate
{
    /// Serialises open, close and destruction. Recursive, because a failed openInput() closes what
    /// it opened. The callbacks, the drain and the senders never take it.
    RecursiveMutex mutex;

    MIDIHeaderBlock inHeaders{kInputHeaders};
    MIDIHeaderBlock outHeaders{kOutputHeaders};

    // Null while no port is open. Written under `mutex`, read by the drain and by senders.
    std::atomic<HMIDIIN> hMidiIn{nullptr};
    std::atomic<HMIDIOUT> hMidiOut{nullptr};

    /// Auto-reset: signalled when a chunk that a sender waits for is done.
    HANDLE doneEvent = nullptr;

    /// True only while the input is being closed: the callback then queues and signals nothing.
    std::atomic<bool> closingInput{false};

    /// True only while the output is being closed.
    std::atomic<bool> closingOutput{false};

    /// How often the output was closed. A sender that waits for a chunk of a port that is closed by
    /// now would wait for ever.
    std::atomic<unsigned> outputClosings{0};
    std::atomic<int> sendersWaiting{0};

    /// What the input callback wrote and the drain has not read yet, under the queue's own mutex,
    /// which is never held across a WinMM call or a delivery.
    CircularBuffer recordQueue{kQueueBytes};

    /// How many records at the front of the queue are left over from before the last openInput(),
    /// which gave every header to WinMM anew. Under the queue's mutex.
    int staleRecords = 0;

    /// Input buffers that the device was given and has not returned. Some drivers return the last
    /// ones only after the reset that should have brought them back.
    std::atomic<int> buffersOut{0};

    /// Calls of the input callback in progress. Not every driver waits for them when it closes.
    std::atomic<int> callbacksRunning{0};

    /// Hands an input buffer to the device; false if the device refuses it.
    bool addBuffer(HMIDIIN handle, MIDIHDR* header);

    /// Once the device is reset: waits for buffers that are still on their way back, which must not
    /// be taken for those of the next opening. Gives up on a device that never returns them.
    void awaitBuffers();

    /// Marks the records that are queued now as stale.
    void markQueueStale();

    /// Takes the oldest record out; false if there is none. A stale notice of a returned header
    /// comes back as one that names no header: the one it names is with WinMM again.
    bool takeRecord(InputRecord* record);

    /// Copies what a returned input header recorded to `copy`, at most a whole buffer, and gives
    /// the buffer back to the device. Returns the number of bytes.
    int takeLongData(MIDIHDR* header, unsigned char (&copy)[MIDIHeaderBlock::kBufferSize]);

    /// Gives a returned input header back to the device. If the device refuses, the header stays
    /// out of the rotation until the next openInput().
    void recycle(MIDIHDR* header);

    /// An output header that is free, after waiting for one if all are busy; null if there are no
    /// output headers at all.
    MIDIHDR* takeOutputHeader();

    /// Waits until the chunk is done that was sent when the output had been closed `closings`
    /// times, or until the output closes.
    void awaitChunk(unsigned closings);

    /// Once the port is closed: ends the waits for chunks that it did not give back.
    void releaseSenders();

    /// Makes every output header free, once the port is closed: a device that was pulled out may
    /// have kept some, and the pool would otherwise lose them for good.
    void freeOutputHeaders();
};

#endif
