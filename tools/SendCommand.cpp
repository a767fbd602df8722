#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/MidiBytes.h"
#include "tools/Pacing.h"
#include "tools/ProgressBar.h"
#include "tools/Text.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <climits>

// A shorter wait is not worth a word.
static const qint64 kNoticeableMs = 250;

// What driver and port may need on top of the time on the wire.
static const qint64 kDriverMs = 100;

static QByteArray readFile(const QString& name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("It cannot be read: %1").arg(sentence(file.errorString()))};
    if (file.size() > INT_MAX)
        throw Failure{ExitStatus::BadData, QStringLiteral("It is too large.")};
    const QByteArray bytes = file.readAll();
    if (bytes.size() != file.size())
        throw Failure{
            ExitStatus::Failed,
            QStringLiteral("It cannot be read whole: %1").arg(sentence(file.errorString()))};
    return bytes;
}

static QVector<QByteArray> checked(const QVector<QByteArray>& messages)
{
    if (messages.isEmpty())
        throw Failure{ExitStatus::BadData, QStringLiteral("There is no message.")};
    return messages;
}

// All or nothing: what is wrong anywhere is found before the port is opened.
static QVector<QByteArray> messagesOf(const CommandLine& line)
{
    const bool fromFile = line.isSet("file");
    try {
        return checked(fromFile ? splitSysEx(readFile(line.value("file")))
                                : splitMessages(parseHex(line.arguments().mid(1))));
    } catch (const Failure& failure) {
        const QString source =
            fromFile ? QDir::toNativeSeparators(line.value("file")) + QLatin1String(": ")
                     : QString();
        throw Failure{failure.status,
                      source + failure.message + QLatin1String(" Nothing is sent.")};
    }
}

[[noreturn]] static void refuseInterrupted(const QString& consequence)
{
    throw Failure{ExitStatus::Failed, QStringLiteral("Interrupted: %1").arg(consequence)};
}

// The main thread sends, which blocks; the bar draws itself meanwhile.
static WireQueue sendAll(TMIDITransport& transport, const QVector<QByteArray>& messages, int gap,
                         const QElapsedTimer& clock, ProgressBar& bar)
{
    WireQueue queue;
    qint64 sent = 0;
    for (int i = 0; i < messages.size(); ++i) {
        if (interrupted() || (i > 0 && gap > 0 && !sleepFor(gap)))
            refuseInterrupted(QStringLiteral("%1 of %2 sent.")
                                  .arg(grouped(i), counted(messages.size(), "message")));
        const QByteArray& message = messages.at(i);
        bar.sending(sent, message.size(), queue);
        if (!transport.outputData(message.size(), message.constData()))
            throw Failure{ExitStatus::Failed,
                          QStringLiteral("The port refused the data of message %1 of %2.")
                              .arg(grouped(i + 1), grouped(messages.size()))};
        queue.sent(message.size(), clock.elapsed());
        sent += message.size();
    }
    bar.sending(sent, 0, queue);
    return queue;
}

static void waitUntilThrough(const WireQueue& queue, const QElapsedTimer& clock)
{
    const qint64 left = queue.emptyAt() + kDriverMs - clock.elapsed();
    if (left >= kNoticeableMs)
        say(QStringLiteral("Waiting %1 until the last bytes must be through at MIDI's wire speed "
                           "(--no-wait does not).")
                .arg(duration(left)));
    if (left > 0 && !sleepFor(left))
        refuseInterrupted(QStringLiteral("the last message may be cut short."));
}

void sendCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("send"),
        QStringLiteral(
            "Sends messages to an output. They are checked first, and nothing is sent if "
            "anything is wrong with them."));
    line.addArgument(QStringLiteral("PORT"), QStringLiteral("The output."), QStringLiteral("PORT"));
    line.addArgument(
        QStringLiteral("BYTES"),
        QStringLiteral("Complete messages in hexadecimal, as in F0 7D 10 F7 or 903C64."),
        QStringLiteral("[BYTES…]"));
    line.addOption(QStringLiteral("file"),
                   QStringLiteral("Sends a .syx file: SysEx messages, F0 … F7."),
                   QStringLiteral("dump.syx"));
    line.addOption(QStringLiteral("gap"),
                   QStringLiteral("Waits so many milliseconds between messages."),
                   QStringLiteral("MS"), QStringLiteral("0"));
    line.addOption(QStringLiteral("no-wait"),
                   QStringLiteral("Closes the port at once, although the last message may "
                                  "be cut short."));
    if (!line.parse(arguments))
        return;
    const bool fromFile = line.isSet("file");
    line.expectArguments(fromFile ? 1 : 2, fromFile ? 1 : INT_MAX);
    const int gap = line.number("gap", 0, INT_MAX);
    const QVector<QByteArray> messages = messagesOf(line);

    QVector<int> sizes;
    for (const QByteArray& message : messages)
        sizes.append(message.size());
    const Progress progress(sizes, gap);

    Session session(line.store());
    const Port port = session.openOutput(line.arguments().first());
    QElapsedTimer clock;
    clock.start();
    WireQueue queue;
    {
        ProgressBar bar(progress, clock);
        queue = sendAll(session.transport(), messages, gap, clock, bar);
    }
    if (!line.isSet("no-wait"))
        waitUntilThrough(queue, clock);
    say(QStringLiteral("%1, %2, sent to %3 in %4.")
            .arg(counted(messages.size(), "message"), counted(progress.totalBytes(), "byte"),
                 describe(port, true), duration(clock.elapsed())));
}
