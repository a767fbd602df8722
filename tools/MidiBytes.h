#ifndef LUMORA_TOOLS_MIDIBYTES_H
#define LUMORA_TOOLS_MIDIBYTES_H

#include "transport/MIDIStatus.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

const int kChannels = 16;

inline unsigned char byteAt(const QByteArray& bytes, int index)
{
    return static_cast<unsigned char>(bytes.at(index));
}

/// As an int: Qt 6's sizes have 64 bits, but no message here is that long.
inline int lengthOf(const QByteArray& bytes)
{
    return static_cast<int>(bytes.size());
}

// Checks untrusted MIDI data before any of it is used. The first three throw Failure with
// ExitStatus::BadData and the offset of the offending byte or character, from 0.

/// The bytes of hexadecimal text, two digits each: {"F0", "7D10", "F7"} or {"F0 7D 10 F7"}. Offsets
/// count the characters of the texts joined by blanks.
QByteArray parseHex(const QStringList& texts);

/// The messages of `bytes`: complete ones only, each with its own status byte.
QVector<QByteArray> splitMessages(const QByteArray& bytes);

/// The messages of a .syx file: SysEx only, F0 … F7, nothing before, between or after them. With
/// `padding`, skips zeros and line ends there and adds their number to it.
QVector<QByteArray> splitSysEx(const QByteArray& bytes, int* padding = nullptr);

/// The length in bytes of a message that begins with `status`; 0 for SysEx, whose length is open,
/// and for a byte that begins no message.
int messageLength(unsigned char status);

/// Whether `message` begins with F0.
bool isSysEx(const QByteArray& message);

/// Whether `message` is one SysEx message, F0 … F7, with only data bytes between.
bool isWholeSysEx(const QByteArray& message);

/// `sysEx` without the real-time messages in it. Those that arrive while the library assembles a
/// SysEx message become part of it, padded to 4 bytes like every short message.
QByteArray withoutRealTime(const QByteArray& sysEx);

#endif
