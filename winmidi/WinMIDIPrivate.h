#ifndef LUMORA_WINMIDI_WINMIDIPRIVATE_H
#define LUMORA_WINMIDI_WINMIDIPRIVATE_H

#include "qt/RecursiveMutex.h"
#include "utilities/CircularBuffer.h"
#include "winmidi/CallbackGate.h"
#include "winmidi/MIDIHeaderBlock.h"
#include "winmidi/WinMIDIInput.h"
#include "winmidi/WinMIDIOutput.h"

#include <atomic>

/// The device state of a TWinMIDI.
struct TWinMIDIPrivate
{
    /// Serialises open, close and destruction. Recursive, because a failed openInput() closes the
    /// port. The callbacks, the drain and the senders never take it.
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

    /// Records from the input callback to the drain, under the queue's own mutex, which is never
    /// held across a WinMM call or a delivery.
    CircularBuffer recordQueue{kQueueBytes};

    /// Admits WinMM's callbacks, from the constructor of TWinMIDI to its destructor.
    CallbackGate* gate = nullptr;

    // --- Input: WinMIDIInput.cpp ----------------------------------------------------------------

    BuffersOut buffersOut;
    DrainingThread drainingThread;

    /// Gives every input buffer to a device that was just opened; false if it refuses one.
    bool addBuffers(HMIDIIN handle);

    /// Hands an input buffer to the device; false if the device refuses it.
    bool addBuffer(HMIDIIN handle, MIDIHDR* header);

    /// After the reset, waits for the buffers that the device still has, so that their notices are
    /// not taken for those of the next opening. Gives up on a device that never returns them.
    void awaitBuffers() const;

    /// Queues a record of the input callback. False if the input is being closed: then the caller
    /// must not signal.
    bool receive(const InputRecord& record);

    /// Removes the notices that are left from before an opening, which gives every header to WinMM
    /// again, from the queue. Other records stay.
    void dropNotices();

    /// Takes records out of the queue until it is empty, gives their buffers back to the device and
    /// passes their data to `frame(length, data)`. Stops at a MIM_CLOSE record and returns 1,
    /// otherwise 0.
    template <class Frame>
    int drain(const Frame& frame);

    /// Takes the oldest record out of the queue; false if there is none.
    bool takeRecord(InputRecord* record);

    /// The header that a notice names; null if there is none, or if the driver has it. In that case
    /// the notice is an older opening's, from a driver that closed without waiting for its thread.
    MIDIHDR* returnedHeader(DWORD address) const;

    /// Copies what a returned input header recorded to `copy`, at most a whole buffer, and gives
    /// the buffer back to the device. Returns the number of bytes.
    int takeLongData(MIDIHDR* header, unsigned char (&copy)[MIDIHeaderBlock::kBufferSize]);

    /// Gives a returned input header back to the device. If the device refuses, the header stays
    /// out of the rotation until the next openInput().
    void recycle(MIDIHDR* header);

    // --- Output: WinMIDIOutput.cpp --------------------------------------------------------------

    Senders senders;

    /// True once an observer's chunk was given up while the input closes. The pusher thread uses
    /// it; closeInput() clears it when that thread has ended.
    bool observersSendLost = false;

    /// An output header that is free, after waiting for one if all are busy; null if there are no
    /// output headers at all, or the wait must end (see awaitChunk).
    MIDIHDR* takeOutputHeader(unsigned period);

    /// Waits until the chunk of `header` is done. False if the wait must end: the output closes, or
    /// the input does and an observer is the sender.
    bool awaitChunk(MIDIHDR* header, unsigned period);

    /// Whether the driver has a chunk.
    bool anyChunkInFlight() const;

    /// Resets and closes the port, once its senders and chunks are through. False if it stays open.
    bool resetAndClose(HMIDIOUT handle);

    /// Makes every output header free, once the port is closed.
    void freeOutputHeaders();
};

#endif
