#ifndef LUMORA_WINMIDI_WINMIDIPRIVATE_H
#define LUMORA_WINMIDI_WINMIDIPRIVATE_H

#include "qt/RecursiveMutex.h"
#include "utilities/CircularBuffer.h"
#include "winmidi/MIDIHeaderBlock.h"
#include "winmidi/WinMIDIInput.h"
#include "winmidi/WinMIDIOutput.h"

#include <atomic>

/// The device state of a TWinMIDI.
struct TWinMIDIPrivate
{
    /// Serialises open, close and destruction. Recursive, because a failed openInput() closes what
    /// it opened. The callbacks, the drain and the senders never take it.
    lumora::RecursiveMutex mutex;

    MIDIHeaderBlock inHeaders{kInputHeaders};
    MIDIHeaderBlock outHeaders{kOutputHeaders};

    // Null while no port is open. Written under `mutex`, read by the drain and by senders.
    std::atomic<HMIDIIN> hMidiIn{nullptr};
    std::atomic<HMIDIOUT> hMidiOut{nullptr};

    /// Auto-reset: signalled when a chunk that a sender waits for is done. The destructor of
    /// TWinMIDI closes it, between the buffers and the rest.
    HANDLE doneEvent = nullptr;

    /// True only while the input is being closed: the callback then queues and signals nothing.
    std::atomic<bool> closingInput{false};

    /// True only while the output is being closed.
    std::atomic<bool> closingOutput{false};

    /// What the input callback wrote and the drain has not read yet, under the queue's own mutex,
    /// which is never held across a WinMM call or a delivery.
    CircularBuffer recordQueue{kQueueBytes};

    // --- Input: WinMIDIInput.cpp ----------------------------------------------------------------

    BuffersOut buffersOut;
    StaleRecords staleRecords; ///< under the queue's mutex
    CallbacksRunning callbacksRunning;
    DrainingThread drainingThread;

    /// Gives every input buffer to a device that was just opened; false if it refuses one.
    bool addBuffers(HMIDIIN handle);

    /// Hands an input buffer to the device; false if the device refuses it.
    bool addBuffer(HMIDIIN handle, MIDIHDR* header);

    /// Once the device is reset: waits for buffers that are still on their way back, which must not
    /// be taken for those of the next opening. Gives up on a device that never returns them.
    void awaitBuffers();

    /// Queues what the input callback was given. False if the input is being closed, or the message
    /// is no longer about the open port: then nothing must be signalled.
    bool receive(HMIDIIN handle, const InputRecord& record);

    /// Takes records out of the queue until it is empty, gives their buffers back to the device and
    /// hands what they brought to `frame(length, data)`. 1 if it met a MIM_CLOSE record, which ends
    /// it, otherwise 0.
    template <class Frame>
    int drain(const Frame& frame);

    /// Takes the oldest record out; false if there is none. A stale notice of a returned header
    /// comes back as one that names no header: the one it names is with WinMM again.
    bool takeRecord(InputRecord* record);

    /// Copies what a returned input header recorded to `copy`, at most a whole buffer, and gives
    /// the buffer back to the device. Returns the number of bytes.
    int takeLongData(MIDIHDR* header, unsigned char (&copy)[MIDIHeaderBlock::kBufferSize]);

    /// Gives a returned input header back to the device. If the device refuses, the header stays
    /// out of the rotation until the next openInput().
    void recycle(MIDIHDR* header);

    // --- Output: WinMIDIOutput.cpp --------------------------------------------------------------

    Senders senders;

    /// An output header that is free, after waiting for one if all are busy; null if there are no
    /// output headers at all.
    MIDIHDR* takeOutputHeader();

    /// Waits until the chunk of `header` is done, which was sent when the output had been closed
    /// `closings` times, or until the output closes: then false.
    bool awaitChunk(MIDIHDR* header, unsigned closings);

    /// Makes every output header free, once the port is closed: a device that was pulled out may
    /// have kept some, and the pool would otherwise lose them for good.
    void freeOutputHeaders();
};

#endif
