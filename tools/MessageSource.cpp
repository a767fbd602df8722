#include "tools/MessageSource.h"

#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/MidiBytes.h"
#include "tools/MidiFile.h"
#include "tools/Text.h"
#include "tools/Words.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <io.h>

// Well below the longest QByteArray of Qt 5.
static const qint64 kLongestFile = 2'000'000'000;

static const char kStandardInput[] = "-";

void addLenientOption(CommandLine& line)
{
    line.addOption(
        QStringLiteral("lenient"),
        QStringLiteral("Skips zeros and line ends between the messages of a .syx file, and "
                       "says how many."));
}

[[noreturn]] static void refuseToRead(const QFile& file)
{
    throw Failure{ExitStatus::Failed,
                  QStringLiteral("It cannot be read: %1").arg(sentence(file.errorString()))};
}

static QByteArray readAll(QFile& file)
{
    // One byte more than allowed, rather than the file's size: a pipe has none.
    QByteArray bytes = file.read(kLongestFile + 1);
    if (file.error() != QFile::NoError)
        refuseToRead(file);
    if (bytes.size() > kLongestFile)
        throw Failure{
            ExitStatus::BadData,
            QStringLiteral("It is too large: the limit is %1.").arg(counted(kLongestFile, "byte"))};
    return bytes;
}

static QByteArray readFile(const QString& name)
{
    QFile file(name);
    if (name == QLatin1String(kStandardInput)) {
        _setmode(_fileno(stdin), _O_BINARY);
        if (!file.open(stdin, QIODevice::ReadOnly))
            refuseToRead(file);
        return readAll(file);
    }
    if (!file.open(QIODevice::ReadOnly))
        refuseToRead(file);
    if (file.size() > kLongestFile)
        throw Failure{ExitStatus::BadData,
                      QStringLiteral("It is too large: %1; the limit is %2.")
                          .arg(counted(file.size(), "byte"), grouped(kLongestFile))};
    return readAll(file);
}

// Only printable ASCII and white space, which no .syx or .mid file is.
static bool isText(const QByteArray& bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char c) {
        return (c >= ' ' && c <= '~') || c == '\r' || c == '\n' || c == '\t';
    });
}

static QVector<QByteArray> messagesOfSyx(const QByteArray& content, bool lenient)
{
    if (lenient) {
        int padding = 0;
        const QVector<QByteArray> messages = splitSysEx(content, &padding);
        if (padding > 0)
            say(QStringLiteral("%1 of padding skipped.").arg(counted(padding, "byte")));
        return messages;
    }
    try {
        return splitSysEx(content);
    } catch (const Failure& failure) {
        int padding = 0;
        splitSysEx(content, &padding); // throws if padding is not the only fault
        throw Failure{failure.status,
                      failure.message + QLatin1String(" --lenient skips such padding.")};
    }
}

static QVector<QByteArray> messagesOfContent(const QByteArray& content, const QString& name,
                                             bool lenient)
{
    if (isMidiFile(content)) {
        const QVector<QByteArray> messages = sysExOfMidiFile(content);
        if (messages.isEmpty())
            throw Failure{ExitStatus::BadData,
                          QStringLiteral("This MIDI file has no SysEx messages, and nothing else "
                                         "in it is sent.")};
        return messages;
    }
    if (name == QLatin1String(kStandardInput) && isText(content))
        return parseMessages({QString::fromLatin1(content)});
    return messagesOfSyx(content, lenient);
}

[[noreturn]] static void refuse(const Failure& failure, const QString& source)
{
    throw Failure{failure.status, source + failure.message + QLatin1String(" Nothing is sent.")};
}

static QVector<QByteArray> notEmpty(const QVector<QByteArray>& messages)
{
    if (messages.isEmpty())
        throw Failure{ExitStatus::BadData, QStringLiteral("There is no message.")};
    return messages;
}

QVector<QByteArray> messagesOfFile(const QString& name, const CommandLine& line)
{
    try {
        return notEmpty(messagesOfContent(readFile(name), name, line.isSet("lenient")));
    } catch (const Failure& failure) {
        refuse(failure, (name == QLatin1String(kStandardInput) ? QStringLiteral("Standard input")
                                                               : QDir::toNativeSeparators(name)) +
                            QLatin1String(": "));
    }
}

// Bytes and words contain no full stops and no slashes.
static bool namesFile(const QString& text)
{
    if (text == QLatin1String(kStandardInput))
        return true;
    const QString suffix = QFileInfo(text).suffix().toLower();
    if (suffix == QLatin1String("syx") || suffix == QLatin1String("mid") ||
        suffix == QLatin1String("midi"))
        return true;
    return (text.contains(QLatin1Char('.')) || text.contains(QLatin1Char('/')) ||
            text.contains(QLatin1Char('\\'))) &&
           QFile::exists(text);
}

QVector<QByteArray> messagesOf(const QStringList& texts, const CommandLine& line)
{
    if (texts.size() == 1 && namesFile(texts.first()))
        return messagesOfFile(texts.first(), line);
    try {
        return notEmpty(parseMessages(texts));
    } catch (const Failure& failure) {
        refuse(failure, QString());
    }
}
