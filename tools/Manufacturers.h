#ifndef LUMORA_TOOLS_MANUFACTURERS_H
#define LUMORA_TOOLS_MANUFACTURERS_H

#include <QByteArray>
#include <QString>

/// The maker's identifier at the beginning of a SysEx message: 1 byte, or 3 if the first is 0.
/// Empty if the message has none.
QByteArray manufacturerOf(const QByteArray& sysEx);

/// The maker's name in the MIDI Association's list; empty if it is not known here: it knows all
/// one-byte identifiers and the most common three-byte ones.
QString manufacturerName(const QByteArray& id);

#endif
