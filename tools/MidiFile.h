#ifndef LUMORA_TOOLS_MIDIFILE_H
#define LUMORA_TOOLS_MIDIFILE_H

#include <QByteArray>
#include <QVector>

// Standard MIDI files, of any format. Only their SysEx is used.

/// Whether `bytes` begin like a Standard MIDI File.
bool isMidiFile(const QByteArray& bytes);

/// The SysEx messages of a file, in the order in which it plays them. Joins those that come as
/// several packets, and skips escaped bytes that are not a SysEx message. Throws Failure with
/// ExitStatus::BadData and the offset if the file is damaged or cut off.
QVector<QByteArray> sysExOfMidiFile(const QByteArray& bytes);

#endif
