#include "winmidi/WinMIDI.h"

#include "ports/MIDIPortAccessor.h"
#include "ports/PortLabel.h"
#include "winmidi/WinMIDIPrivate.h"

#include <new>

// What can fail while the object is set up. Caught in the constructor.
enum errorCode {
    noDoneEvent = 0,
    noInputHeaders = 1,
    noInputData = 2,
    noOutputHeaders = 3,
    noOutputData = 4
};

// What can fail while an input is opened. Caught in openInput().
enum errCode { notOpened = 0, bufferNotAdded = 1, notStarted = 2 };

// How often an output that still plays is reset and closed. A sender pauses 100 ms between chunks,
// so the second attempt finds the port quiet; more is for a device that never is.
static const int kCloseAttempts = 10;

static UINT deviceNumber(int port)
{
    return static_cast<UINT>(port) - 1;
}

TMIDITransport& MIDITransportInstance(IMIDIPortAccessor* accessor)
{
    TMIDITransport* transport = nullptr;
    try {
        transport = new TWinMIDI(accessor);
    } catch (const std::bad_alloc&) {
        // The caller finds out with valid().
    }
    return *transport;
}

TWinMIDI::TWinMIDI(IMIDIPortAccessor* accessor) : TMIDITransport(accessor), d(new TWinMIDIPrivate)
{
    try {
        d->doneEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        if (!d->doneEvent)
            throw noDoneEvent;
        if (!d->inHeaders.allocateHeaders())
            throw noInputHeaders;
        if (!d->inHeaders.allocateData())
            throw noInputData;
        if (!d->outHeaders.allocateHeaders())
            throw noOutputHeaders;
        if (!d->outHeaders.allocateData())
            throw noOutputData;
    } catch (errorCode) {
        // Deliberately silent: the object lacks what was not created.
    }
}

TWinMIDI::~TWinMIDI()
{
    TWinMIDI::closeInput();
    TWinMIDI::closeOutput();
    d->inHeaders.freeData();
    d->outHeaders.freeData();
    d->outHeaders.freeHeaders();
    d->inHeaders.freeHeaders();
    if (d->doneEvent) {
        CloseHandle(d->doneEvent);
        d->doneEvent = nullptr;
    }
    delete d;
}

int TWinMIDI::numberOfInputs() const
{
    return accessor ? accessor->numberOfPlugs(false) : 0;
}

int TWinMIDI::numberOfOutputs() const
{
    return accessor ? accessor->numberOfPlugs(true) : 0;
}

static QUuid identifierOfPort(const TSystemMIDIMap& map, int port)
{
    for (TSystemMIDIMap::const_iterator entry = map.begin(); entry != map.end(); ++entry) {
        if (PortLabel(entry.value()).number() == port)
            return entry.key();
    }
    return QUuid();
}

QUuid TWinMIDI::getInpPortDescriptor(int port) const
{
    return accessor ? identifierOfPort(accessor->plugs(false), port) : QUuid();
}

QUuid TWinMIDI::getOutPortDescriptor(int port) const
{
    return accessor ? identifierOfPort(accessor->plugs(true), port) : QUuid();
}

void* TWinMIDI::openInput(int port)
{
    if (d->onPusherThread())
        return port < 1 ? d->hMidiIn.load() : nullptr;
    const RecursiveMutexLocker locker(&d->mutex);
    if (port < 1)
        return d->hMidiIn;
    try {
        HMIDIIN handle = nullptr;
        if (midiInOpen(&handle, deviceNumber(port), reinterpret_cast<DWORD_PTR>(&MidiInProc),
                       reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION) != MMSYSERR_NOERROR)
            throw notOpened;
        d->hMidiIn = handle;
        d->markQueueStale();
        if (!d->addBuffers(handle))
            throw bufferNotAdded;
        if (midiInStart(handle) != MMSYSERR_NOERROR)
            throw notStarted;
        startPusherThread();
    } catch (errCode) {
        closeInput();
        d->hMidiIn = nullptr;
    }
    return d->hMidiIn;
}

int TWinMIDI::closeInput()
{
    if (d->onPusherThread())
        return -1;
    const RecursiveMutexLocker locker(&d->mutex);
    const HMIDIIN handle = d->hMidiIn;
    if (!handle)
        return -1;
    d->closingInput = true;
    stopPusherThread();
    midiInStop(handle);
    d->hMidiIn = nullptr;
    midiInReset(handle);
    d->awaitBuffers();
    for (MIDIHDR& header : d->inHeaders)
        midiInUnprepareHeader(handle, &header, sizeof header);
    midiInClose(handle);
    while (d->callbacksRunning != 0)
        Sleep(0);
    d->closingInput = false;
    return 0;
}

// The device lock, for the operations that an observer may call. On the pusher thread it is given
// up if the input is being closed: the closing thread holds the lock and waits for this very
// thread.
class OutputLocker
{
public:
    explicit OutputLocker(TWinMIDIPrivate* d) : mutex(d->mutex), held(true)
    {
        if (!d->onPusherThread()) {
            mutex.lock();
            return;
        }
        while (!mutex.tryLock()) {
            if (d->closingInput) {
                held = false;
                return;
            }
            Sleep(1); // of time-critical priority, it would leave no one else a core
        }
    }
    ~OutputLocker()
    {
        if (held)
            mutex.unlock();
    }

    OutputLocker(const OutputLocker&) = delete;
    OutputLocker& operator=(const OutputLocker&) = delete;

    bool isLocked() const { return held; }

private:
    RecursiveMutex& mutex;
    bool held;
};

void* TWinMIDI::openOutput(int port)
{
    if (port < 1)
        return d->hMidiOut;
    const OutputLocker locker(d);
    if (!locker.isLocked())
        return nullptr;
    HMIDIOUT handle = nullptr;
    if (midiOutOpen(&handle, deviceNumber(port), reinterpret_cast<DWORD_PTR>(&MidiOutProc), 0,
                    CALLBACK_FUNCTION) != MMSYSERR_NOERROR)
        handle = nullptr;
    d->hMidiOut = handle;
    return handle;
}

int TWinMIDI::closeOutput()
{
    const OutputLocker locker(d);
    if (!locker.isLocked())
        return -1;
    const HMIDIOUT handle = d->hMidiOut;
    if (!handle)
        return -1;
    d->closingOutput = true;
    MMRESULT result;
    int attempts = 0;
    do {
        midiOutReset(handle);
        for (MIDIHDR& header : d->outHeaders)
            midiOutUnprepareHeader(handle, &header, sizeof header);
        result = midiOutClose(handle);
        // A thread that is sending may have put a chunk behind the reset, which keeps the port
        // open.
    } while (result == MIDIERR_STILLPLAYING && ++attempts < kCloseAttempts);
    d->hMidiOut = nullptr; // first: a sender that is given a free header finds no port
    d->freeOutputHeaders();
    d->releaseSenders();
    d->closingOutput = false;
    return 0;
}
