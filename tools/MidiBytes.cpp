#include "tools/MidiBytes.h"

#include "tools/Failure.h"
#include "tools/Text.h"
#include "transport/MIDIByteStream.h"

[[noreturn]] static void refuse(const QString& what, int offset)
{
    throw Failure{ExitStatus::BadData,
                  QStringLiteral("%1 at offset %2 (0x%3).")
                      .arg(what, grouped(offset), QString::number(offset, 16).toUpper())};
}

[[noreturn]] static void refuseText(const QString& text, const QString& what, int offset)
{
    throw Failure{
        ExitStatus::BadData,
        QStringLiteral("%1 at offset %2 of \"%3\".").arg(what, QString::number(offset), text)};
}

// A character beyond U+FFFF takes two QChars.
static QString characterAt(const QString& text, int index)
{
    const bool isPair = text.at(index).isHighSurrogate() && index + 1 < text.size() &&
                        text.at(index + 1).isLowSurrogate();
    return text.mid(index, isPair ? 2 : 1);
}

QByteArray parseHex(const QStringList& texts)
{
    const QString text = texts.join(QLatin1Char(' '));
    QByteArray bytes;
    int first = -1; // where the first digit of the current byte is; -1 between bytes
    for (int i = 0; i <= text.size(); ++i) {
        const QChar c = i < text.size() ? text.at(i) : QChar(QLatin1Char(' '));
        if (c.isSpace()) {
            if (first >= 0)
                refuseText(text, QStringLiteral("Odd hexadecimal digit"), first);
            continue;
        }
        bool isDigit = false;
        QString(c).toInt(&isDigit, 16);
        if (!isDigit)
            refuseText(
                text,
                QStringLiteral("\"%1\" is not a hexadecimal digit,").arg(characterAt(text, i)), i);
        if (first < 0) {
            first = i;
            continue;
        }
        bytes.append(static_cast<char>(text.mid(first, 2).toInt(nullptr, 16)));
        first = -1;
    }
    return bytes;
}

int messageLength(unsigned char status)
{
    if (status == 0xF4 || status == 0xF5)
        return 1; // undefined: sent alone
    return static_cast<int>(midiMessageLength(status));
}

// The SysEx message at `start`, to its F7.
static QByteArray takeSysEx(const QByteArray& bytes, int start)
{
    for (int i = start + 1; i < bytes.size(); ++i) {
        const unsigned char byte = byteAt(bytes, i);
        if (byte == kSysExEnd)
            return bytes.mid(start, i + 1 - start);
        if (isMIDIStatus(byte))
            refuse(QStringLiteral("Status byte %1 within the SysEx message that begins at %2,")
                       .arg(hex(byte), grouped(start)),
                   i);
    }
    refuse(QStringLiteral("No F7 ends the SysEx message that begins"), start);
}

static QByteArray takeShort(const QByteArray& bytes, int start)
{
    const unsigned char status = byteAt(bytes, start);
    const int length = messageLength(status);
    if (length == 0)
        refuse(QStringLiteral("%1 does not begin a message,").arg(hex(status)), start);
    for (int i = start + 1; i < start + length; ++i) {
        if (i == bytes.size())
            refuse(QStringLiteral("The message that begins with %1 is cut off,").arg(hex(status)),
                   start);
        if (isMIDIStatus(byteAt(bytes, i)))
            refuse(
                QStringLiteral("Status byte %1 in place of a data byte").arg(hex(byteAt(bytes, i))),
                i);
    }
    return bytes.mid(start, length);
}

QVector<QByteArray> splitMessages(const QByteArray& bytes)
{
    QVector<QByteArray> messages;
    for (int i = 0; i < bytes.size(); i += lengthOf(messages.last()))
        messages.append(byteAt(bytes, i) == kSysExStart ? takeSysEx(bytes, i)
                                                        : takeShort(bytes, i));
    return messages;
}

// What other programs write around the messages of a file.
static bool isPadding(unsigned char byte)
{
    return byte == 0 || byte == '\r' || byte == '\n';
}

QVector<QByteArray> splitSysEx(const QByteArray& bytes, int* padding)
{
    QVector<QByteArray> messages;
    int i = 0;
    while (i < bytes.size()) {
        const unsigned char byte = byteAt(bytes, i);
        if (byte == kSysExStart) {
            messages.append(takeSysEx(bytes, i));
            i += lengthOf(messages.last());
        } else if (padding && isPadding(byte)) {
            ++*padding;
            ++i;
        } else {
            refuse(QStringLiteral("%1 is outside F0 … F7,").arg(hex(byte)), i);
        }
    }
    return messages;
}

bool isSysEx(const QByteArray& message)
{
    return !message.isEmpty() && byteAt(message, 0) == kSysExStart;
}

bool isWholeSysEx(const QByteArray& message)
{
    const int last = lengthOf(message) - 1;
    if (last < 1 || !isSysEx(message) || byteAt(message, last) != kSysExEnd)
        return false;
    for (int i = 1; i < last; ++i) {
        if (isMIDIStatus(byteAt(message, i)))
            return false;
    }
    return true;
}

QByteArray withoutRealTime(const QByteArray& sysEx)
{
    static const QByteArray padding(3, '\0');
    QByteArray kept;
    kept.reserve(sysEx.size());
    for (int i = 0; i < sysEx.size(); ++i) {
        if (byteAt(sysEx, i) >= kFirstRealtime && sysEx.mid(i + 1, padding.size()) == padding)
            i += lengthOf(padding);
        else
            kept.append(sysEx.at(i));
    }
    return kept;
}
