#include "tools/Session.h"

#include "ports/MIDIPortAccessor.h"
#include "tools/Failure.h"
#include "tools/Receiver.h"
#include "winmidi/WinMIDI.h"

#include <algorithm>

Session::Session(const Store& store)
    : accessor(MIDIPortAccessor(store.organization, store.application))
{
    try {
        addTransport();
    } catch (...) {
        release();
        throw;
    }
}

Session::~Session()
{
    release();
}

void Session::addTransport()
{
    transports.reserve(transports.size() + 1); // throws before the transport exists, not after
    TMIDITransport& midi = MIDITransportInstance(accessor);
    if (!midi.valid())
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Not enough memory for a MIDI transport.")};
    transports.push_back(&midi);
}

void Session::release()
{
    for (TMIDITransport* const midi : transports)
        midi->Release(); // closes the ports, and calls the observers for the last time
    accessor->Release();
}

QVector<Port> Session::ports(bool output) const
{
    return portsOf(accessor->plugs(output));
}

[[noreturn]] static void refuseToOpen(const Port& port, bool output)
{
    throw Failure{ExitStatus::NotOpened,
                  QStringLiteral("The %1 would not open. Perhaps another program has it open.")
                      .arg(describe(port, output))};
}

Port Session::openInput(const QString& text, Receiver& receiver)
{
    Port port = findPort(ports(false), text, false);
    const int noPort = 0; // returns the handle of the open input
    if (transports.back()->openInput(noPort))
        addTransport();
    TMIDITransport* const midi = transports.back();
    midi->registerMIDIobserver(receiver.addPort());
    if (!midi->openInput(port.number))
        refuseToOpen(port, false);
    return port;
}

Port Session::openOutput(const QString& text) const
{
    Port port = findPort(ports(true), text, true);
    if (!transport().openOutput(port.number))
        refuseToOpen(port, true);
    return port;
}

// Presents `ports` as the system's, so that init() looks them up in the store: known ports keep
// their identifiers, others get fresh ones. It is never released, so it stores nothing.
class StoreProbe final : public UniIMIDIPortAccessor
{
public:
    StoreProbe(const Store& store, const QVector<Port>& ports, bool output)
        : UniIMIDIPortAccessor(store.organization, store.application), ports(ports), output(output)
    {
        init();
    }
    ~StoreProbe() override = default;

protected:
    QString systemPortName(int index, bool) override
    {
        for (const Port& port : ports) {
            if (port.number == index + 1)
                return port.name;
        }
        return QString();
    }

    int numberOfSystemPorts(bool direction) override
    {
        return direction == output && !ports.isEmpty() ? ports.last().number : 0;
    }

private:
    QVector<Port> ports; // by number
    bool output;
};

QVector<Port> storedPorts(const Store& store, const QVector<Port>& ports, bool output)
{
    const StoreProbe probe(store, ports, output);
    QVector<Port> stored;
    std::copy_if(ports.begin(), ports.end(), std::back_inserter(stored),
                 [&](const Port& port) { return probe.plugs(output).contains(port.id); });
    return stored;
}
