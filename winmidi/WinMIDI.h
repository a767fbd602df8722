#ifndef LUMORA_WINMIDI_WINMIDI_H
#define LUMORA_WINMIDI_WINMIDI_H

/// \file
/// The factory of transports, and the Windows transport that it makes.

#include "transport/MIDITransport.h"

#include <windows.h>

#include <mmsystem.h>

struct TWinMIDIPrivate;

/// The transport on the Windows multimedia MIDI interface. Port number n is WinMM's device n - 1.
/// What each operation promises stands in TMIDITransport.
class LUMORA_TRANSPORT_EXPORT TWinMIDI : public TMIDITransport
{
public:
    /// Sets up all buffers, about 3.6 MB, for the life of the object. What the system refuses is
    /// lacking from then on: without input buffers no SysEx arrives, without output buffers
    /// outputData() returns false. Nothing is reported here.
    explicit TWinMIDI(IMIDIPortAccessor* accessor);

    int numberOfInputs() const override;
    int numberOfOutputs() const override;
    QUuid getInpPortDescriptor(int port) const override;
    QUuid getOutPortDescriptor(int port) const override;
    void* openInput(int port) override;
    int closeInput() override;
    void* openOutput(int port) override;
    int closeOutput() override;
    bool outputData(int length, const void* data) override;

protected:
    /// Closes both ports. Reached through Release().
    ~TWinMIDI() override;

    /// Drains the input queue, on the pusher thread. 1 if it met a MIM_CLOSE record, otherwise 0
    /// once the queue is empty.
    int read(int length, const void* data, bool strictStart, bool spare) override;

private:
    friend struct lumora::TransportTestAccess;

    // WinMM's callbacks, on threads of WinMM's. The message parameters are declared 32 bits wide,
    // which is why the headers lie where 32 bits identify them.
    static void CALLBACK MidiInProc(HMIDIIN handle, UINT message, DWORD_PTR instance, DWORD param1,
                                    DWORD param2);
    static void CALLBACK MidiOutProc(HMIDIOUT handle, UINT message, DWORD_PTR instance,
                                     DWORD param1, DWORD param2);

    // Senders with a status byte apart, which goes in front of `data` when it is not 0. `length`
    // counts the bytes of `data`; in outputLongData2, which sends a single chunk, the status too.
    bool outputLongData2(int length, const unsigned char* data, unsigned int status, bool wait);
    bool outputLongData(int length, unsigned char* data, unsigned int status);
    bool outputShortData(int length, const unsigned char* data, unsigned int status);
    bool outputData(int length, unsigned char* data, unsigned int status);

    TWinMIDIPrivate* d;
};

/// Makes a transport for the ports of `accessor`, with a reference count of 1; a new one on every
/// call. The caller ends it with Release(), before the accessor. Without memory the reference is
/// null, which valid() tells. Takes no lock: one thread at a time.
LUMORA_TRANSPORT_EXPORT TMIDITransport& MIDITransportInstance(IMIDIPortAccessor* accessor);

#endif
