#ifndef LUMORA_TOOLS_MANUFACTURERS_H
#define LUMORA_TOOLS_MANUFACTURERS_H

#include <QByteArray>
#include <QString>

/// The identifier of the maker that a SysEx message begins with, 1 or 3 bytes (those that begin
/// with 0 have two more). Empty if the message has none.
QByteArray manufacturerOf(const QByteArray& sysEx);

/// The maker that the MIDI Association lists under this identifier; empty if it is not among those
/// known here: all of one byte, and the three-byte ones that are met most.
QString manufacturerName(const QByteArray& id);

#endif
