#ifndef LUMORA_TRANSPORT_MIDITRANSPORT_H
#define LUMORA_TRANSPORT_MIDITRANSPORT_H

/// \file
/// What a host holds: the transport, and the interface of its observers.

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
struct TransportTestAccess; // the tests' view of the objects' insides
}

/// Whoever takes MIDI: every observer, and the transport itself.
class TMIDIReaderRefConInterface
{
public:
    /// Takes `length` bytes at `data`, which are the caller's and valid for this call only.
    ///
    /// An observer is called on the transport's pusher thread, one call at a time, under the
    /// transport's lock; by doEvent() on its caller's, without. It gets a channel message as 4
    /// bytes: status, two data bytes (0 where the message has none) and 0; or one whole SysEx
    /// message, F0 … F7, of any length. `strictStart` is true and `spare` false in everything a
    /// device sent. The return value is ignored. It must not throw: nothing above it catches.
    virtual int read(int length, const void* data, bool strictStart, bool spare) = 0;

protected:
    /// Nobody deletes an observer through this interface.
    ~TMIDIReaderRefConInterface() = default;
};

/// A further interface of the host's, which implements it. Nothing in this library calls it; the
/// last five slots are the host's own.
class LUMORA_TRANSPORT_EXPORT TMIDIProxyInOut : public TMIDIReaderRefConInterface
{
public:
    int read(int length, const void* data, bool strictStart, bool spare) override = 0;

    /// Does nothing. Its owner, the host, may delete the object.
    virtual ~TMIDIProxyInOut();

    /// @{
    /// A slot of the host's own.
    virtual void hostOperation1() = 0;
    virtual void hostOperation2() = 0;
    virtual void hostOperation3() = 0;
    virtual void hostOperation4() = 0;
    virtual void hostOperation5() = 0;
    /// @}
};

/// A message that the host hands to the observers itself, with TMIDITransport::doEvent().
struct TMIDIEvent
{
    QByteArray message; ///< the bytes, which observers get as they stand
};

/// A MIDI transport: lists ports, holds one open input and one open output, sends, and delivers
/// what arrives to observers. Made by a backend's factory with a reference count of 1.
///
/// Ports are numbered from 1, in the system's order; a number below 1 means no port.
///
/// Threads. Opening and closing take a lock and belong to the host's threads; whatever else takes
/// none says so. An observer may call back into the transport, and open and close the output,
/// unless the input is being closed at that moment: then openOutput() returns null and
/// closeOutput() -1. It cannot close or reopen the input, which returns -1 or null and changes
/// nothing, and it must not give up the last reference, which destroys what it runs on.
class LUMORA_TRANSPORT_EXPORT TMIDITransport : public QObject, public TMIDIReaderRefConInterface
{
public:
    /// `accessor` is not owned and must outlive the transport. Transports are counted without a
    /// lock: one thread at a time makes them. Throws std::bad_alloc if there is no memory.
    explicit TMIDITransport(IMIDIPortAccessor* accessor);

    /// Counts one more owner; returns the new count. Takes no lock: AddRef() and Release() are
    /// called by one thread at a time.
    unsigned int AddRef();

    /// Counts one owner less; returns the new count. At 0 the ports are closed as closeInput() and
    /// closeOutput() do it, and the object is gone: no other call may be in progress.
    unsigned int Release();

    /// From now on nothing that arrives is delivered, for good. Ports stay open. Any thread.
    void terminate();

    /// Whether a factory's reference refers to an object at all: false for the null reference that
    /// it returns when there was no memory. The only call that such a reference allows. True after
    /// terminate(), too.
    bool valid() const;

    /// The length in bytes of a message that begins with `status`, by its high four bits: channel
    /// messages 2 or 3, everything else 1, system messages included. Any thread.
    int midi_msg_length(unsigned char status) const;

    /// Adds `observer` behind the others unless it is registered already. It is not owned, stays
    /// registered for the life of the transport and must live as long. Takes no lock: before
    /// openInput(), or while no input arrives.
    void registerMIDIobserver(TMIDIReaderRefConInterface* observer);

    /// Fills the TMIDIPortList at `list` with the ports of one direction of `accessor` (false:
    /// inputs, true: outputs), in plain memory that the caller frees. The order is that of the
    /// labels as text: port 10 before port 2. Changes nothing if `entries` is not null or
    /// `accessor` is; without memory `entries` stays null and `count` tells how many there would
    /// be. Any thread.
    static void MIDIPorts(IMIDIPortAccessor* accessor, bool output, void* list);

    /// The name to show for a port of either direction; for an unknown one or one without a name
    /// the identifier's text, never an empty string. Needs an accessor. Any thread.
    QString friendlyName(const QUuid& id) const;

    /// The port number of an input, for openInput(); 0 if there is no such input. Needs an
    /// accessor. Any thread.
    int getInpDescriptorPort(const QUuid& id) const;

    /// The port number of an output, for openOutput(); 0 if there is no such output. Needs an
    /// accessor. Any thread.
    int getOutDescriptorPort(const QUuid& id) const;

    /// Hands `event` to every observer in order of registration, on the calling thread and without
    /// a lock, after terminate() too; not while another thread delivers input.
    void doEvent(TMIDIEvent& event);

    /// The number of inputs that the accessor knows; 0 without an accessor. Any thread.
    virtual int numberOfInputs() const = 0;

    /// The number of outputs that the accessor knows; 0 without an accessor. Any thread.
    virtual int numberOfOutputs() const = 0;

    /// The identifier of input number `index`, from 1; the null QUuid if there is no such input.
    /// Any thread.
    virtual QUuid getInpPortDescriptor(int index) const = 0;

    /// The identifier of output number `index`, from 1; the null QUuid if there is no such output.
    /// Any thread.
    virtual QUuid getOutPortDescriptor(int index) const = 0;

    /// Opens input number `port` and starts delivery. Returns the device handle, which stays the
    /// transport's; null on failure or from an observer. A number below 1 changes nothing and
    /// returns the current handle, null if none is open. Close the open input first.
    virtual void* openInput(int port) = 0;

    /// Ends delivery and closes the input: 0, or -1 if none was open or an observer calls. Waits
    /// for the observer that is being called, however long it takes, and up to 1 s for a device
    /// that keeps buffers. Once it returns no observer is called.
    virtual int closeInput() = 0;

    /// Opens output number `port`. Returns the device handle, which stays the transport's; null on
    /// failure. A number below 1 changes nothing and returns the current handle, null if none is
    /// open. Close the open output first.
    virtual void* openOutput(int port) = 0;

    /// Resets and closes the output, cutting off what is still being sent: 0, or -1 if none was
    /// open.
    virtual int closeOutput() = 0;

    /// Sends `length` bytes at `data` as they stand, which are copied. Waits for every chunk of
    /// 4,096 bytes but the last, without limit, and at least 100 ms between chunks; for the last
    /// one only while 8 are on their way. False if `length` is below 1, `data` is null, no output
    /// is open, the device refused a chunk or the output was closed in the middle; earlier chunks
    /// have then gone out. Any thread, but takes no lock: one at a time.
    virtual bool outputData(int length, const void* data) = 0;

protected:
    /// Reached through Release().
    ~TMIDITransport() override;

    /// Takes one chunk of input: frames, reassembles and delivers it under `lock`. Returns
    /// `length`. Pusher thread. A backend overrides this with a function that drains its input
    /// queue and calls it for every chunk.
    int read(int length, const void* data, bool strictStart, bool spare) override;

    /// Starts delivery once the input device runs; nothing if it is running. Without memory for
    /// the thread nothing is delivered, and nothing tells.
    void startPusherThread();

    /// Ends delivery after one more drain. On return the pusher thread no longer runs. Takes no
    /// lock: the backend's own keeps opening and closing apart.
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
    /// Delivery then goes on without sleeping.
    void* dataEvent;

private:
    lumora::RecursiveMutex lock;
};

#endif
