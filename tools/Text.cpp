#include "tools/Text.h"

#include <QLocale>
#include <QStringList>

QString grouped(qint64 number)
{
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(number);
}

QString counted(qint64 number, const char* singular)
{
    const QString text = grouped(number) + QLatin1Char(' ') + QLatin1String(singular);
    return number == 1 ? text : text + QLatin1Char('s');
}

QString hex(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toHex(' ').toUpper());
}

QString hex(unsigned char byte)
{
    return hex(QByteArray(1, static_cast<char>(byte)));
}

QString hexDump(const QByteArray& bytes)
{
    const int perLine = 16;
    const int columns = 3 * perLine; // two digits and a blank per byte, one blank in the middle
    QString text;
    for (int offset = 0; offset < bytes.size(); offset += perLine) {
        const QByteArray line = bytes.mid(offset, perLine);
        QString digits = hex(line);
        if (line.size() > perLine / 2)
            digits.insert(columns / 2, QLatin1Char(' '));
        QString characters;
        for (const char c : line)
            characters += c >= ' ' && c <= '~' ? QLatin1Char(c) : QLatin1Char('.');
        text += QStringLiteral("  %1  %2  %3\n")
                    .arg(QString::number(offset, 16).toUpper().rightJustified(6, QLatin1Char('0')),
                         digits.leftJustified(columns), characters);
    }
    return text;
}

QString wrapped(const QString& text, int width, int indent)
{
    QString result;
    int column = 0;
    const QStringList words = text.split(QLatin1Char(' '));
    for (const QString& word : words) {
        const int length = static_cast<int>(word.size());
        if (column > 0 && column + 1 + length > width) {
            result += QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            column = indent;
        } else if (column > 0) {
            result += QLatin1Char(' ');
            ++column;
        }
        result += word;
        column += length;
    }
    return result;
}

QString sentence(const QString& text)
{
    return text.endsWith(QLatin1Char('.')) ? text : text + QLatin1Char('.');
}

QString printable(const QString& name)
{
    QString text = name;
    for (QChar& c : text) {
        if (c.category() == QChar::Other_Control)
            c = QChar(QChar::ReplacementCharacter);
    }
    return text;
}

int pieceEnd(const QString& text, int start, int most)
{
    const int size = static_cast<int>(text.size());
    if (size - start <= most)
        return size;
    const int end = start + most;
    return text.at(end - 1).isHighSurrogate() && text.at(end).isLowSurrogate() ? end - 1 : end;
}

QString duration(qint64 milliseconds)
{
    if (milliseconds < 1000)
        return QString::number(milliseconds) + QLatin1String(" ms");
    return QString::number(static_cast<double>(milliseconds) / 1000, 'f', 1) + QLatin1String(" s");
}

QString clockTime(qint64 milliseconds)
{
    const qint64 seconds = (milliseconds + 999) / 1000;
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}
