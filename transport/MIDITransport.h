#ifndef LUMORA_TRANSPORT_MIDITRANSPORT_H
#define LUMORA_TRANSPORT_MIDITRANSPORT_H

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

/// Whoever takes MIDI: every observer, and the transport itself.
class TMIDIReaderRefConInterface
{
public:
    /// Takes `length` bytes at `data`, which are the caller's and valid for this call only.
    ///
    /// An observer is called on the transport's pusher thread (by doEvent() on its caller's), one
    /// call at a time, under the transport's lock. It gets a channel message as 4 bytes: status,
    /// two data bytes (0 where the message has none) and 0; or one whole SysEx message, F0 … F7,
    /// of any length. `strictStart` is true and `spare` false in everything a device sent; the
    /// return value is ignored.
    virtual int read(int length, const void* data, bool strictStart, bool spare) = 0;

protected:
    ~TMIDIReaderRefConInterface() = default;
};

/// A further interface of the host's, which implements it. Nothing in this library calls it; the
/// last five slots are the host's own.
class LUMORA_TRANSPORT_EXPORT TMIDIProxyInOut : public TMIDIReaderRefConInterface
{
public:
    int read(int length, const void* data, bool strictStart, bool spare) override = 0;

    virtual ~TMIDIProxyInOut();

    virtual void hostOperation1() = 0;
    virtual void hostOperation2() = 0;
    virtual void hostOperation3() = 0;
    virtual void hostOperation4() = 0;
    virtual void hostOperation5() = 0;
};

/// A message that the host hands to the observers itself, with TMIDITransport::doEvent().
struct TMIDIEvent
{
    QByteArray message;
};

/// A MIDI transport: lists ports, holds one open input and one open output, sends, and delivers
/// what arrives to observers. Made by a backend's factory with a reference count of 1.
///
/// Ports are numbered from 1, in the system's order; a number below 1 means no port.
///
/// Threads. Opening, closing and releasing belong to the host's threads; AddRef() and Release()
/// take no lock and are called by one thread at a time. Register observers before openInput() or
/// while no input arrives. An observer may call back into the transport, and open and close the
/// output, unless the input is being closed at that moment. It cannot close or reopen the input,
/// which returns -1 or null and changes nothing, and it must not release the transport: that waits
/// for the very thread which the observer runs on.
class LUMORA_TRANSPORT_EXPORT TMIDITransport : public QObject, public TMIDIReaderRefConInterface
{
public:
    /// `accessor` is not owned and must outlive the transport.
    explicit TMIDITransport(IMIDIPortAccessor* accessor);

    /// Counts one more owner; returns the new count.
    unsigned int AddRef();

    /// Counts one owner less; returns the new count. At 0 the ports are closed and the object is
    /// gone.
    unsigned int Release();

    /// From now on nothing that arrives is delivered, for good. Ports stay open. Any thread.
    void terminate();

    /// Whether a factory's reference refers to an object at all: false for the null reference that
    /// it returns when there was no memory.
    bool valid() const;

    /// The length in bytes of a message that begins with `status`, by its high four bits: channel
    /// messages 2 or 3, everything else 1, system messages included.
    int midi_msg_length(unsigned char status) const;

    /// Adds `observer` behind the others unless it is registered already. It is not owned, and it
    /// stays registered for the life of the transport.
    void registerMIDIobserver(TMIDIReaderRefConInterface* observer);

    /// Fills the TMIDIPortList at `list` with the ports of one direction of `accessor` (false:
    /// inputs, true: outputs), in plain memory that the caller frees. The order is that of the
    /// labels as text: port 10 before port 2. Changes nothing if the list is filled already or
    /// `accessor` is null; without memory `entries` stays null. Any thread.
    static void MIDIPorts(IMIDIPortAccessor* accessor, bool output, void* list);

    /// The name to show for a port of either direction; for an unknown one or one without a name
    /// the identifier's text, never an empty string. Any thread.
    QString friendlyName(const QUuid& id) const;

    /// The port number of an input (an output), for openInput() (openOutput()); 0 if there is no
    /// such port. Any thread.
    int getInpDescriptorPort(const QUuid& id) const;
    int getOutDescriptorPort(const QUuid& id) const;

    /// Hands `event` to every observer in order of registration, on the calling thread and without
    /// a lock; not while input is being delivered.
    void doEvent(TMIDIEvent& event);

    /// The number of ports that the accessor knows; 0 without an accessor.
    virtual int numberOfInputs() const = 0;
    virtual int numberOfOutputs() const = 0;

    /// The identifier of port number `index`; the null QUuid if there is no such port.
    virtual QUuid getInpPortDescriptor(int index) const = 0;
    virtual QUuid getOutPortDescriptor(int index) const = 0;

    /// Opens input number `port` and starts delivery. Returns the device handle, null on failure;
    /// for a number below 1 the current handle, with nothing changed. Close the open input first.
    virtual void* openInput(int port) = 0;

    /// Ends delivery and closes the input: 0, or -1 if none was open. Waits for the observer that
    /// is being called, however long it takes.
    virtual int closeInput() = 0;

    /// Opens output number `port`. Returns the device handle, null on failure; for a number below 1
    /// the current handle, with nothing changed. Close the open output first.
    virtual void* openOutput(int port) = 0;

    /// Resets and closes the output, cutting off what is still being sent: 0, or -1 if none was
    /// open.
    virtual int closeOutput() = 0;

    /// Sends `length` bytes at `data` as they stand, which are copied. Blocks for all but the last
    /// 4,096 of them and for the 100 ms between chunks of that size. False if `length` is below 1
    /// or the device refused a chunk; earlier chunks have then gone out. Takes no lock: one thread
    /// at a time.
    virtual bool outputData(int length, const void* data) = 0;

protected:
    ~TMIDITransport() override;

    /// Takes one chunk of input: frames, reassembles and delivers it under `lock`. Returns
    /// `length`. Pusher thread. A backend overrides this with a function that drains its input
    /// queue and calls it for every chunk.
    int read(int length, const void* data, bool strictStart, bool spare) override;

    /// Starts delivery once the input device runs; nothing if it is running.
    void startPusherThread();

    /// Ends delivery after one more drain. On return the pusher thread no longer runs.
    void stopPusherThread();

    IMIDIPortAccessor* accessor;

private:
    friend class TMIDIEventPushThread;
    friend struct TransportTestAccess;

    unsigned int refCount;
    std::atomic<bool> terminated;
    TMIDIObserverBlock* observerBlock;
    TMIDIEventPushThread* pusher;

protected:
    /// The event (HANDLE) that wakes the pusher thread; null if it could not be created.
    void* dataEvent;

private:
    RecursiveMutex lock;
};

#endif
