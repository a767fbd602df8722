#ifndef LUMORA_TRANSPORT_MIDIOBSERVERBLOCK_H
#define LUMORA_TRANSPORT_MIDIOBSERVERBLOCK_H

#include "qt/Q3PtrList.h"
#include "transport/MIDITransport.h"

#include <memory>

LUMORA_LIST_DELETES_NO(TMIDIReaderRefConInterface)

/// The observers of a transport and the SysEx message that is being reassembled for them.
struct TMIDIObserverBlock
{
    /// In order of registration; not owned.
    Q3PtrList<TMIDIReaderRefConInterface> observers;

    /// Null when nothing is being assembled.
    std::unique_ptr<QByteArray> pendingSysEx;

    /// Takes one chunk of input under `lock`: delivers a channel message at once, and assembles
    /// everything else. Does nothing once `terminated` is true. Returns `length`.
    int frame(int length, const void* data, bool strictStart, lumora::RecursiveMutex* lock,
              const std::atomic<bool>& terminated);

    /// Calls the observers in order until `terminated` is true. By index, not by the list's current
    /// position, which an observer that registers another or delivers an event moves.
    void deliver(int length, const void* data, bool strictStart,
                 const std::atomic<bool>& terminated)
    {
        for (uint i = 0; i < observers.count() && !terminated; ++i) {
            if (TMIDIReaderRefConInterface* observer = observers.at(i)) // hosts may register null
                observer->read(length, data, strictStart, false);
        }
    }

private:
    /// Takes a chunk that is not a channel message: a SysEx message or a piece of one.
    void assemble(int length, const void* data, bool strictStart,
                  const std::atomic<bool>& terminated);

    /// Adds a piece to the pending message, or discards that message without memory.
    void append(int length, const void* data);
};

#endif
