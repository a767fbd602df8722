// The interfaces as the hosts that are in use were compiled: the order of the virtual functions,
// their signatures and the layouts. A host calls through slots, not names, so nothing here is ever
// edited to follow a change of the library's headers: the change is what breaks those hosts.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QUuid>

namespace frozen {

class Reader
{
public:
    virtual int read(int length, const void* data, bool strictStart, bool spare) = 0;

protected:
    ~Reader() = default;
};

class Accessor
{
public:
    virtual void Release() = 0;
    virtual QUuid portIdentity(const QString& name, bool output) const = 0;
    virtual QString portName(const QUuid& id) const = 0;
    virtual int numberOfPlugs(bool output) const = 0;
    virtual const QMap<QUuid, QString>& plugs(bool output) const = 0;

protected:
    ~Accessor() = default;
};

/// What a port to another platform derives from, and what the library calls there.
class PlatformAccessor : public Accessor
{
public:
    virtual ~PlatformAccessor() = default;
    virtual QString systemPortName(int index, bool output) = 0;
    virtual int numberOfSystemPorts(bool output) = 0;

    QMap<QUuid, QString> plugMaps[2];
    QString organization;
    QString application;
};

class Transport : public QObject, public Reader
{
public:
    virtual int numberOfInputs() const = 0;
    virtual int numberOfOutputs() const = 0;
    virtual QUuid getInpPortDescriptor(int index) const = 0;
    virtual QUuid getOutPortDescriptor(int index) const = 0;
    virtual void* openInput(int port) = 0;
    virtual int closeInput() = 0;
    virtual void* openOutput(int port) = 0;
    virtual int closeOutput() = 0;
    virtual bool outputData(int length, const void* data) = 0;
};

/// Implemented by hosts; five slots of their own follow the destructor.
class Proxy : public Reader
{
public:
    virtual ~Proxy() = default;
    virtual void first() = 0;
    virtual void second() = 0;
    virtual void third() = 0;
    virtual void fourth() = 0;
    virtual void fifth() = 0;
};

/// The bytes come first; hosts have more behind them.
struct Event
{
    QByteArray message;
    int more;
};

} // namespace frozen
