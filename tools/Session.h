#ifndef LUMORA_TOOLS_SESSION_H
#define LUMORA_TOOLS_SESSION_H

#include "tools/Ports.h"
#include "transport/MIDITransport.h"

class IMIDIPortAccessor;
class Receiver;

/// Names the settings store that keeps the identifiers.
struct Store
{
    QString organization;
    QString application;
};

/// The library in use: an accessor and a transport made for it. Ending the session closes the
/// ports and stores the identifiers of new ones.
class Session
{
public:
    /// Throws Failure if the transport cannot be made.
    explicit Session(const Store& store);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    TMIDITransport& transport() const { return *midi; }
    QVector<Port> ports(bool output) const;

    /// Open the port that `text` names (see findPort()). They throw Failure if there is no such
    /// port or it does not open. `receiver` must outlive the session.
    Port openInput(const QString& text, Receiver& receiver);
    Port openOutput(const QString& text);

private:
    IMIDIPortAccessor* accessor;
    TMIDITransport* midi;
};

/// Those of `ports` whose identifiers `store` holds now.
QVector<Port> storedPorts(const Store& store, const QVector<Port>& ports, bool output);

#endif
