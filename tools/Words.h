#ifndef LUMORA_TOOLS_WORDS_H
#define LUMORA_TOOLS_WORDS_H

#include <QByteArray>
#include <QStringList>
#include <QVector>

/// The messages that `texts` name: complete ones in hexadecimal (see splitMessages()), and words
/// with decimal numbers behind them, in any order. Numbers are decimal behind a word; a note may be
/// named, too.
///
///     on NOTE [VELOCITY]     off NOTE [VELOCITY]    pp NOTE PRESSURE
///     cc CONTROLLER VALUE    pc PROGRAM             cp PRESSURE
///     pb VALUE               ch CHANNEL             panic
///
/// `ch` sets the channel of the words behind it, 1 until then. `panic` ends all notes and all sound
/// on every channel. "cc" is the word, "CC" the byte. Throws Failure with ExitStatus::BadData.
QVector<QByteArray> parseMessages(const QStringList& texts);

/// The number of a note: "60", "C4", "c#4", "Db4", "C-1"; -1 if `text` names none.
int noteNumber(const QString& text);

#endif
