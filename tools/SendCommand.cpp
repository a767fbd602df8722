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

#include <chrono>
#include <climits>
#include <thread>

// A shorter wait is not worth a word.
static const qint64 kNoticeableMs = 250;

// Well below the longest array that Qt 5 can make.
static const qint64 kLongestFile = 2'000'000'000;

static QByteArray readFile(const QString& name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("It cannot be read: %1").arg(sentence(file.errorString()))};
    if (file.size() > kLongestFile)
        throw Failure{ExitStatus::BadData,
                      QStringLiteral("It is too large: %1, and %2 are possible.")
                          .arg(counted(file.size(), "byte"), grouped(kLongestFile))};
    QByteArray bytes = file.readAll();
    if (bytes.size() != file.size())
        throw Failure{
            ExitStatus::Failed,
            QStringLiteral("It cannot be read whole: %1").arg(sentence(file.errorString()))};
    return bytes;
}

static QVector<QByteArray> notEmpty(const QVector<QByteArray>& messages)
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
        return notEmpty(fromFile ? splitSysEx(readFile(line.value("file")))
                                 : splitMessages(parseHex(line.arguments().mid(1))));
    } catch (const Failure& failure) {
        const QString source =
            fromFile ? QDir::toNativeSeparators(line.value("file")) + QLatin1String(": ")
                     : QString();
        throw Failure{failure.status,
                      source + failure.message + QLatin1String(" Nothing is sent.")};
    }
}

namespace {

struct Sent
{
    int messages = 0;
    WireQueue queue; // what may still be on its way
};

} // namespace

// All messages, or those before Ctrl-C. The main thread sends, which blocks; the bar draws itself
// meanwhile.
static Sent sendAll(TMIDITransport& transport, const QVector<QByteArray>& messages, int gap,
                    const QElapsedTimer& clock, ProgressBar& bar)
{
    Sent sent;
    qint64 bytes = 0;
    for (const QByteArray& message : messages) {
        if (sent.messages > 0 && gap > 0)
            sleepFor(gap);
        if (interrupted())
            break;
        bar.sending(bytes, message.size(), sent.queue);
        answerInterruption("Ending after this message; Ctrl-C again cuts it short.");
        const bool ok = transport.outputData(message.size(), message.constData());
        answerInterruption(nullptr);
        if (!ok)
            throw Failure{ExitStatus::Failed,
                          QStringLiteral("The port refused the data of message %1 of %2.")
                              .arg(grouped(sent.messages + 1), grouped(messages.size()))};
        sent.queue.sent(message.size(), clock.elapsed());
        bytes += message.size();
        ++sent.messages;
    }
    return sent;
}

// Ctrl-C ends the wait, unless it came before: then this lets the last message finish.
static void waitUntilThrough(const WireQueue& queue, const QElapsedTimer& clock)
{
    const qint64 left = queue.emptyAt() + kDriverMs - clock.elapsed();
    if (left >= kNoticeableMs)
        say(QStringLiteral("Waiting %1 until the last bytes must be through at MIDI's wire speed "
                           "(--no-wait does not).")
                .arg(duration(left)));
    if (left <= 0)
        return;
    if (interrupted())
        std::this_thread::sleep_for(std::chrono::milliseconds(left));
    else if (!sleepFor(left))
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Interrupted: the last message may be cut short.")};
}

void sendCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("send"),
        QStringLiteral(
            "Sends messages to an output. They are checked first, and nothing is sent if "
            "anything is wrong with them."));
    line.addPort(QStringLiteral("PORT"), true);
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
    Sent sent;
    {
        ProgressBar bar(progress, clock);
        sent = sendAll(session.transport(), messages, gap, clock, bar);
    }
    if (!line.isSet("no-wait"))
        waitUntilThrough(sent.queue, clock);
    if (sent.messages < messages.size())
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Interrupted: %1 of %2 sent.")
                          .arg(grouped(sent.messages), counted(messages.size(), "message"))};
    say(QStringLiteral("%1, %2, sent to %3 in %4.")
            .arg(counted(messages.size(), "message"), counted(progress.totalBytes(), "byte"),
                 describe(port, true), duration(clock.elapsed())));
}
