#ifndef LUMORA_TOOLS_MIDIFILE_H
#define LUMORA_TOOLS_MIDIFILE_H

#include <QByteArray>
#include <QVector>

// Standard MIDI files, of any format. Only SysEx is taken out of them.

/// Whether `bytes` begin as a Standard MIDI File does.
bool isMidiFile(const QByteArray& bytes);

/// The SysEx messages of a file, in the order in which it plays them. Those that come as several
/// packets are put together; escaped bytes that are no SysEx message are passed over. Throws
/// Failure with ExitStatus::BadData, and with the offset, if the file is damaged or cut off.
QVector<QByteArray> sysExOfMidiFile(const QByteArray& bytes);

#endif
