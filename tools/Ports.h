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

/// The ports of one direction of an accessor, by number. `labels` is its plugs(): "number;name" by
/// identifier.
QVector<Port> portsOf(const QMap<QUuid, QString>& labels);

/// The port that `text` names: by identifier, with or without braces, by number, by name, or by a
/// part of its name in any case. The first of these that matches any port counts. Throws Failure
/// with the candidates if no port or more than one matches.
Port findPort(const QVector<Port>& ports, const QString& text, bool output);

/// "input 1 "Name""
QString describe(const Port& port, bool output);

#endif
