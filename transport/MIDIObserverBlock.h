#ifndef LUMORA_TRANSPORT_MIDIOBSERVERBLOCK_H
#define LUMORA_TRANSPORT_MIDIOBSERVERBLOCK_H

#include "qt/Q3PtrList.h"
#include "transport/MIDITransport.h"

LUMORA_LIST_DELETES_NO(TMIDIReaderRefConInterface)

/// The observers of a transport and the SysEx message that is being reassembled for them.
struct TMIDIObserverBlock
{
    /// In order of registration; not owned.
    Q3PtrList<TMIDIReaderRefConInterface> observers;

    /// Null when nothing is being assembled.
    QByteArray* pendingSysEx = nullptr;

    /// Calls the observers one after the other, as long as `terminated` is false.
    void deliver(int length, const void* data, bool strictStart,
                 const std::atomic<bool>& terminated);

    /// Takes a chunk that is no channel message: a SysEx message, or a piece of one.
    void assemble(int length, const void* data, bool strictStart,
                  const std::atomic<bool>& terminated);
};

#endif
