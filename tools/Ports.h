#ifndef LUMORA_TOOLS_PORTS_H
#define LUMORA_TOOLS_PORTS_H

#include <QMap>
#include <QString>
#include <QUuid>
#include <QVector>

// Every bool that selects a direction means false = input, true = output, as in the library.

struct Port
{
    int number; ///< 1-based, for openInput() and openOutput()
    QString name;
    QUuid id;
};

/// "input" or "output"
QString directionName(bool output);

/// The ports of one direction of an accessor, by number. `labels` is what its plugs() gives:
/// "number;name" by identifier.
QVector<Port> portsOf(const QMap<QUuid, QString>& labels);

/// The port that `text` stands for: an identifier, with or without braces, a number, a name, or a
/// part of one in any case. The first of these that any port has counts. Throws Failure, with the
/// candidates, if there is none or more than one.
Port findPort(const QVector<Port>& ports, const QString& text, bool output);

/// "input 1 "Name""
QString describe(const Port& port, bool output);

#endif
