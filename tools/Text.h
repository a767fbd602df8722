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

/// Eight and eight bytes a line, with their offsets and their ASCII characters.
QString hexDump(const QByteArray& bytes);

/// `text` in lines of at most `width` characters, parted at blanks; each but the first begins with
/// `indent` blanks. A word that is longer stands alone.
QString wrapped(const QString& text, int width, int indent);

/// `text` with one full stop behind it, whether it had one or not.
QString sentence(const QString& text);

/// `name` for people to read: U+FFFD in place of each control character, which could steer the
/// terminal or begin another line.
QString printable(const QString& name);

/// Where the piece of `text` that begins at `start` ends: `most` UTF-16 units on, at the end, or
/// one earlier where that would part a surrogate pair. `most` is 2 at least.
int pieceEnd(const QString& text, int start, int most);

/// "1.3 s", "205 ms"
QString duration(qint64 milliseconds);

/// "0:07", "5:35": how long something still takes.
QString clockTime(qint64 milliseconds);

#endif
