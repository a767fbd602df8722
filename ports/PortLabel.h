#ifndef LUMORA_PORTS_PORTLABEL_H
#define LUMORA_PORTS_PORTLABEL_H

#include <QString>
#include <QStringList>

/// A port label, "number;name", split at ';' without empty pieces. So a device name that contains
/// ';' is cut there.
class PortLabel
{
public:
    /// The label of the device at `index` (0-based).
    static QString compose(int index, const QString& deviceName);

    explicit PortLabel(const QString& text);

    /// The 1-based port number; 0 if the label does not start with a number.
    int number() const;

    /// False for a label such as "3;", whose device has no name.
    bool hasName() const { return pieces.size() >= 2; }

    /// The device name; null if there is none.
    QString name() const;

private:
    QStringList pieces;
};

#endif
