#ifndef LUMORA_WINMIDI_WINMIDI_H
#define LUMORA_WINMIDI_WINMIDI_H

/// \file
/// The factory of transports, and the Windows transport that it makes.

#include "transport/MIDITransport.h"

#include <windows.h>

#include <mmsystem.h>

struct TWinMIDIPrivate;

/// The transport on the Windows multimedia MIDI interface. Port number n is WinMM's device n - 1.
/// See TMIDITransport for the contract.
class LUMORA_TRANSPORT_EXPORT TWinMIDI : public TMIDITransport
{
public:
    /// Allocates all buffers, about 3.6 MB, for the life of the object. Reports no failure. Without
    /// input buffers an input does not open or delivers no SysEx, without output buffers
    /// outputData() returns false, and without its private state the object opens nothing.
    /// Thread-safe: no, one thread at a time makes transports. Blocks: no.
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
    /// Thread-safe: no, the last call of all. Blocks: as closeInput() and closeOutput().
    ~TWinMIDI() override;

    /// Drains the input queue. Returns 1 if it met a MIM_CLOSE record, else 0 with the queue empty.
    /// Thread-safe: no, the pusher thread calls it. Blocks: until the observers return.
    int read(int length, const void* data, bool strictStart, bool spare) override;

private:
    friend struct lumora::TransportTestAccess;

    // WinMM's callbacks, on WinMM's threads. Their message parameters are 32 bits wide, so the
    // headers lie where 32 bits identify them.
    static void CALLBACK MidiInProc(HMIDIIN handle, UINT message, DWORD_PTR instance, DWORD param1,
                                    DWORD param2);
    static void CALLBACK MidiOutProc(HMIDIOUT handle, UINT message, DWORD_PTR instance,
                                     DWORD param1, DWORD param2);

    // Senders whose status byte is passed separately and sent before `data` unless it is 0.
    // `length` counts the bytes of `data`; in outputLongData2, which sends one chunk, it includes
    // the status byte.
    bool outputLongData2(int length, const unsigned char* data, unsigned int status, bool wait);
    bool outputLongData(int length, unsigned char* data, unsigned int status);

    // In the binary interface only: the library calls neither.
    bool outputShortData(int length, const unsigned char* data, unsigned int status);
    bool outputData(int length, unsigned char* data, unsigned int status);

    TWinMIDIPrivate* d;
};

/// Makes a new transport for the ports of `accessor`, with a reference count of 1. The caller
/// releases it before the accessor. Without memory the reference is null: check valid().
/// Thread-safe: no, one thread at a time makes transports. Blocks: no.
LUMORA_TRANSPORT_EXPORT TMIDITransport& MIDITransportInstance(IMIDIPortAccessor* accessor);

#endif
