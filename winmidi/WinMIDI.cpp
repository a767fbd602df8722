#include "winmidi/WinMIDI.h"

#include "ports/MIDIPortAccessor.h"
#include "ports/PortLabel.h"
#include "winmidi/WinMIDIPrivate.h"

#include <memory>
#include <new>

// Failures while the object is set up. Caught in the constructor.
enum errorCode {
    noDoneEvent = 0,
    noInputHeaders = 1,
    noInputData = 2,
    noOutputHeaders = 3,
    noOutputData = 4
};

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

TWinMIDI::TWinMIDI(IMIDIPortAccessor* accessor) : TMIDITransport(accessor), d(nullptr)
{
    try {
        std::unique_ptr<TWinMIDIPrivate> device = std::make_unique<TWinMIDIPrivate>();
        device->gate = CallbackGate::open(this, device.get(), dataEvent);
        d = device.release();
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
        // Silent: the object lacks what could not be created.
    } catch (const std::bad_alloc&) {
        // Likewise. Without its private state it opens nothing.
    }
}

TWinMIDI::~TWinMIDI()
{
    if (!d)
        return;
    TWinMIDI::closeInput();
    TWinMIDI::closeOutput();
    if (!d->gate->close()) {
        // A callback does not leave. What it may access stays for the life of the process.
        dataEvent = nullptr;
        keepModuleLoaded();
        return;
    }
    // The order of release is part of the contract.
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
