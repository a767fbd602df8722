#ifndef LUMORA_TRANSPORT_MIDITRANSPORT_H
#define LUMORA_TRANSPORT_MIDITRANSPORT_H

/// \file
/// The transport and the interface of its observers.

#include "ports/Export.h"
#include "qt/RecursiveMutex.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUuid>
#include <atomic>

class IMIDIPortAccessor;
class TMIDIEventPushThread;
struct TMIDIObserverBlock;

namespace lumora {
struct TransportTestAccess; // the tests' access to private members
}

/// Receives MIDI. Observers implement it, and so does the transport itself.
class TMIDIReaderRefConInterface
{
public:
    /// Receives `length` bytes at `data`, which are valid during this call only.
    ///
    /// An observer gets a channel message as 4 bytes: the status byte, two data bytes (0 where the
    /// message has none) and 0. It gets a SysEx message whole, F0 … F7, of any length. In
    /// everything that a device sent, `strictStart` is true and `spare` false. The return value is
    /// ignored. An observer must not throw: nothing above it catches.
    /// Thread-safe: the pusher thread calls it, one call at a time under the transport's lock;
    /// doEvent() calls it on its caller's thread without the lock. Blocks: the observer decides,
    /// and delivery waits for it.
    virtual int read(int length, const void* data, bool strictStart, bool spare) = 0;

protected:
    /// An observer is not deleted through this interface.
    ~TMIDIReaderRefConInterface() = default;
};

/// An interface that the host implements and calls. This library does neither. The last five slots
/// are the host's own.
class LUMORA_TRANSPORT_EXPORT TMIDIProxyInOut : public TMIDIReaderRefConInterface
{
public:
    int read(int length, const void* data, bool strictStart, bool spare) override = 0;

    /// The host owns the object and may delete it.
    /// Thread-safe: the host decides. Blocks: no.
    virtual ~TMIDIProxyInOut();

    /// @{
    /// A slot of the host's own.
    /// Thread-safe: the host decides. Blocks: the host decides.
    virtual void hostOperation1() = 0;
    virtual void hostOperation2() = 0;
    virtual void hostOperation3() = 0;
    virtual void hostOperation4() = 0;
    virtual void hostOperation5() = 0;
    /// @}
};

/// A message that the host passes to the observers with TMIDITransport::doEvent().
struct TMIDIEvent
{
    QByteArray message; ///< the bytes, which observers get unchanged
};

/// A MIDI transport. It lists ports, holds one open input and one open output, sends, and delivers
/// incoming messages to observers. A backend's factory makes it, with a reference count of 1.
///
/// Ports are numbered from 1, in the system's order. A number below 1 means no port.
///
/// An observer may call back into the transport, and may open and close the output. While another
/// thread closes the input, an observer's openOutput() returns null and its closeOutput() -1. An
/// observer cannot close or reopen the input: the call returns -1 or null and changes nothing. It
/// must not release the last reference, which destroys what it runs on.
///
/// The last line on each member says who may call it and for how long it blocks. "One thread at a
/// time" means that the member takes no lock of its own.
class LUMORA_TRANSPORT_EXPORT TMIDITransport : public QObject, public TMIDIReaderRefConInterface
{
public:
    /// Does not own `accessor`, which must outlive the transport. Throws std::bad_alloc without
    /// memory.
    /// Thread-safe: no, one thread at a time makes transports. Blocks: no.
    explicit TMIDITransport(IMIDIPortAccessor* accessor);

    /// Adds a reference. Returns the new count.
    /// Thread-safe: no, one thread at a time calls AddRef() and Release(). Blocks: no.
    unsigned int AddRef();

    /// Drops a reference. Returns the new count. At 0 it closes the ports, without delivering what
    /// is queued, and destroys the object: no other call may be in progress.
    /// Thread-safe: no, one thread at a time calls AddRef() and Release(). Blocks: at 0, as
    /// closeInput() and closeOutput().
    unsigned int Release();

    /// Ends delivery for good. Ports stay open.
    /// Thread-safe: yes. Blocks: no.
    void terminate();

    /// Whether a factory's reference refers to an object. Without memory the factory returns a null
    /// reference, which allows no other call. Still true after terminate().
    /// Thread-safe: yes. Blocks: no.
    bool valid() const;

    /// The length in bytes of a message that begins with `status`, by its high four bits: channel
    /// messages 2 or 3, everything else 1, system messages included.
    /// Thread-safe: yes. Blocks: no.
    int midi_msg_length(unsigned char status) const;

    /// Appends `observer` unless it is registered already. It is not owned, stays registered for
    /// the life of the transport and must live as long. An observer may register another one during
    /// its own call; the new one also gets the current message.
    /// Thread-safe: no, one thread at a time, and none while another one delivers. Blocks: no.
    void registerMIDIobserver(TMIDIReaderRefConInterface* observer);

    /// Fills the TMIDIPortList at `list` with the ports of one direction of `accessor` (false:
    /// inputs, true: outputs), in plain memory that the caller frees, sorted by the labels as text:
    /// port 10 before port 2. Changes nothing if `entries` is not null or `accessor` is null.
    /// Without memory `entries` stays null, and `count` is still the number of ports.
    /// Thread-safe: yes. Blocks: no.
    static void MIDIPorts(IMIDIPortAccessor* accessor, bool output, void* list);

    /// The display name of a port of either direction: the identifier's text if the port is unknown
    /// or has no name, never an empty string. Needs an accessor.
    /// Thread-safe: yes. Blocks: no.
    QString friendlyName(const QUuid& id) const;

    /// The port number of an input, for openInput(); 0 if there is no such input. Needs an
    /// accessor.
    /// Thread-safe: yes. Blocks: no.
    int getInpDescriptorPort(const QUuid& id) const;

    /// The port number of an output, for openOutput(); 0 if there is no such output. Needs an
    /// accessor.
    /// Thread-safe: yes. Blocks: no.
    int getOutDescriptorPort(const QUuid& id) const;

    /// Passes `event` to every observer in order of registration, on the calling thread, also after
    /// terminate(). An observer may call it during its own call, and is then called itself.
    /// Thread-safe: no, one thread at a time, and none while another one delivers. Blocks: until
    /// the observers return.
    void doEvent(TMIDIEvent& event);

    /// The number of inputs that the accessor knows; 0 without an accessor.
    /// Thread-safe: yes. Blocks: no.
    virtual int numberOfInputs() const = 0;

    /// The number of outputs that the accessor knows; 0 without an accessor.
    /// Thread-safe: yes. Blocks: no.
    virtual int numberOfOutputs() const = 0;

    /// The identifier of input number `port`; the null QUuid if there is no such input.
    /// Thread-safe: yes. Blocks: no.
    virtual QUuid getInpPortDescriptor(int port) const = 0;

    /// The identifier of output number `port`; the null QUuid if there is no such output.
    /// Thread-safe: yes. Blocks: no.
    virtual QUuid getOutPortDescriptor(int port) const = 0;

    /// Opens input number `port` and starts delivery. Returns the device handle, which stays the
    /// transport's; null on failure or from an observer. A number below 1 changes nothing and
    /// returns the current handle, null if none is open. Close the open input first.
    /// Thread-safe: yes. Blocks: while another thread opens or closes a port.
    virtual void* openInput(int port) = 0;

    /// Delivers what is queued, then closes the input. Returns 0, or -1 if none was open or an
    /// observer calls. Once it returns, no observer is called.
    /// Thread-safe: yes. Blocks: while another thread opens or closes a port, until the observers
    /// have everything that is queued, and up to 1 s for a device that keeps buffers. A chunk that
    /// an observer sends meanwhile gets up to 1.4 s.
    virtual int closeInput() = 0;

    /// Opens output number `port`. Returns the device handle, which stays the transport's; null on
    /// failure. A number below 1 changes nothing and returns the current handle, null if none is
    /// open. Close the open output first.
    /// Thread-safe: yes. Blocks: while another thread opens or closes a port.
    virtual void* openOutput(int port) = 0;

    /// Resets and closes the output, cutting off data in flight. Returns 0, or -1 if none was open.
    /// Thread-safe: yes. Blocks: while another thread opens or closes a port, and up to 1.4 s for
    /// chunks and senders inside the driver.
    virtual int closeOutput() = 0;

    /// Copies `length` bytes at `data` and sends them unchanged, in chunks of 4,096 bytes. False if
    /// `length` is below 1, `data` is null, no output is open, the device refused a chunk, or the
    /// output was closed during the call. Earlier chunks have then gone out.
    /// Thread-safe: no, one thread at a time. Blocks: until every chunk but the last is done,
    /// without limit, and at least 100 ms between chunks; for the last one while 8 are in flight.
    virtual bool outputData(int length, const void* data) = 0;

protected:
    /// Reached through Release().
    /// Thread-safe: no, the last call of all. Blocks: as stopPusherThread().
    ~TMIDITransport() override;

    /// Takes one chunk of input: frames, reassembles and delivers it under `lock`. Returns
    /// `length`. A backend overrides it to drain its input queue, and calls it for every chunk.
    /// Thread-safe: yes, the pusher thread calls it. Blocks: until the observers return.
    int read(int length, const void* data, bool strictStart, bool spare) override;

    /// Starts delivery once the input device runs. Does nothing if it has started already. Without
    /// memory for the thread nothing is delivered, and no error is reported.
    /// Thread-safe: no, under the backend's lock. Blocks: no.
    void startPusherThread();

    /// Ends delivery after one more drain. On return the pusher thread no longer runs.
    /// Thread-safe: no, under the backend's lock. Blocks: until the queue is drained and the
    /// observers have returned.
    void stopPusherThread();

    IMIDIPortAccessor* accessor; ///< not owned; may be null

private:
    friend class TMIDIEventPushThread;
    friend struct lumora::TransportTestAccess;

    unsigned int refCount;
    std::atomic<bool> terminated;
    TMIDIObserverBlock* observerBlock;
    TMIDIEventPushThread* pusher;

protected:
    /// The event (HANDLE, owned) that wakes the pusher thread; null if it could not be created.
    /// The pusher thread then never sleeps.
    void* dataEvent;

private:
    lumora::RecursiveMutex lock;
};

#endif
