#ifndef LUMORA_TOOLS_TEXT_H
#define LUMORA_TOOLS_TEXT_H

#include <QByteArray>
#include <QString>

/// "10,000"
QString grouped(qint64 number);

/// "10,000 bytes", "1 byte"
QString counted(qint64 number, const char* singular);

/// "F0 7D 10 F7"
QString hex(const QByteArray& bytes);
QString hex(unsigned char byte);

/// Lines of twice eight bytes, with their offsets and their ASCII characters.
QString hexDump(const QByteArray& bytes);

/// `text` in lines of at most `width` characters, broken at blanks; each but the first begins with
/// `indent` blanks. A longer word gets a line of its own.
QString wrapped(const QString& text, int width, int indent);

/// `text` with a full stop at its end, added if it has none.
QString sentence(const QString& text);

/// `name` with each control character, which could control the terminal or start a new line,
/// replaced by U+FFFD.
QString printable(const QString& name);

/// The end of the piece of `text` that begins at `start`: after at most `most` UTF-16 units,
/// without splitting a surrogate pair. `most` is at least 2.
int pieceEnd(const QString& text, int start, int most);

/// "1.3 s", "205 ms"
QString duration(qint64 milliseconds);

/// "0:07", "5:35": the time left, rounded up to seconds.
QString clockTime(qint64 milliseconds);

#endif
