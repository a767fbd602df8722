#ifndef LUMORA_TOOLS_SESSION_H
#define LUMORA_TOOLS_SESSION_H

#include "tools/Ports.h"
#include "transport/MIDITransport.h"

#include <vector>

class IMIDIPortAccessor;
class Receiver;

/// Names the settings store of the identifiers.
struct Store
{
    QString organization;
    QString application;
};

/// An accessor and its transports: one, or one for each open input. Its destructor closes the ports
/// and stores the identifiers of new ones.
class Session
{
public:
    /// Throws Failure if the transport cannot be made.
    explicit Session(const Store& store);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// The transport of the output, and of the first input.
    TMIDITransport& transport() const { return *transports.front(); }
    QVector<Port> ports(bool output) const;

    /// Open the port that `text` names (see findPort()); several inputs may be open. Throw Failure
    /// if there is no such port or it does not open. `receiver` must outlive the session.
    Port openInput(const QString& text, Receiver& receiver);
    Port openOutput(const QString& text) const;

private:
    void addTransport();
    void release();

    IMIDIPortAccessor* const accessor;
    std::vector<TMIDITransport*> transports;
};

/// Those of `ports` whose identifiers `store` has now.
QVector<Port> storedPorts(const Store& store, const QVector<Port>& ports, bool output);

#endif
