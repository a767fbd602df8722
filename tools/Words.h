#ifndef LUMORA_TOOLS_WORDS_H
#define LUMORA_TOOLS_WORDS_H

#include <QByteArray>
#include <QStringList>
#include <QVector>

/// The messages in `texts`: complete ones in hexadecimal (see splitMessages()), and words followed
/// by decimal numbers, in any order. A note may also be a name.
///
///     on NOTE [VELOCITY]     off NOTE [VELOCITY]    pp NOTE PRESSURE
///     cc CONTROLLER VALUE    pc PROGRAM             cp PRESSURE
///     pb VALUE               ch CHANNEL             panic
///
/// `ch` sets the channel of the words after it; the default is 1. `panic` ends all notes and all
/// sound on every channel. "cc" is the word, "CC" the byte. Throws Failure with
/// ExitStatus::BadData.
QVector<QByteArray> parseMessages(const QStringList& texts);

/// The number of a note: "60", "C4", "c#4", "Db4", "C-1"; -1 if `text` is not a note.
int noteNumber(const QString& text);

#endif
