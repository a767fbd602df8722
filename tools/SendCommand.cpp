#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/MessageSource.h"
#include "tools/MidiBytes.h"
#include "tools/Pacing.h"
#include "tools/ProgressBar.h"
#include "tools/Text.h"

#include <QElapsedTimer>

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

// A shorter wait is not reported.
static const qint64 kNoticeableMs = 250;

static const int kFastestRate = 1000 * 1000;

namespace {

struct Sent
{
    int messages = 0;
    qint64 bytes = 0;
    WireQueue onTheirWay; // what may not have left yet
};

// Sends messages one by one. This blocks the main thread; the bar has a thread of its own.
class Sender
{
public:
    // `clock` has just been started.
    Sender(TMIDITransport& transport, const Pace& pace, const Progress& progress,
           const QElapsedTimer& clock)
        : transport(transport), clock(clock), pacer(pace), bar(progress, clock)
    {}

    // Sends all messages, or those before Ctrl-C.
    Sent sendAll(const QVector<QByteArray>& messages)
    {
        Sent sent;
        for (const QByteArray& message : messages) {
            if (!sleepFor(pacer.nextAt() - clock.elapsed()))
                break;
            answerInterruption("Ending after this message; Ctrl-C again cuts it short.");
            const bool ok = send(message);
            answerInterruption(nullptr);
            if (!ok)
                throw Failure{ExitStatus::Failed,
                              QStringLiteral("The port refused the data of message %1 of %2.")
                                  .arg(grouped(sent.messages + 1), grouped(messages.size()))};
            ++sent.messages;
            sent.bytes += message.size();
        }
        sent.onTheirWay = pacer.onTheirWay();
        return sent;
    }

private:
    // Sends a whole message, even after Ctrl-C.
    bool send(const QByteArray& message)
    {
        const int size = lengthOf(message);
        for (int done = 0; done < size;) {
            const int bytes = std::min(size - done, pacer.pieceBytes());
            if (done > 0)
                std::this_thread::sleep_for(
                    std::chrono::milliseconds(pacer.nextAt() - clock.elapsed()));
            const qint64 start = clock.elapsed();
            bar.begin(bytes);
            if (!transport.outputData(bytes, message.constData() + done))
                return false;
            bar.end();
            done += bytes;
            pacer.sent(bytes, done == size, start, clock.elapsed());
        }
        return true;
    }

    TMIDITransport& transport;
    const QElapsedTimer& clock;
    Pacer pacer;
    ProgressBar bar;
};

} // namespace

// Ctrl-C ends the wait, unless it came before: then the last message may finish.
static void waitUntilThrough(const WireQueue& queue, const QElapsedTimer& clock)
{
    const qint64 left = queue.emptyAt() + kDriverMs - clock.elapsed();
    if (left >= kNoticeableMs)
        say(QStringLiteral("Waiting %1 for the last bytes to leave at MIDI's wire speed "
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

static Pace paceOf(const CommandLine& line)
{
    Pace pace;
    pace.gap = line.number("gap", 0, INT_MAX);
    if (line.isSet("chunk"))
        pace.chunk = line.number("chunk", 1, kChunkBytes);
    if (line.isSet("rate"))
        pace.rate = line.number("rate", 1, kFastestRate);
    return pace;
}

static void tellPace(const Pace& pace)
{
    const QString pieces = counted(Pacer(pace).pieceBytes(), "byte");
    if (pace.rate > 0)
        say(QStringLiteral("Messages go out in pieces of %1, at most %2 a second.")
                .arg(pieces, counted(pace.rate, "byte")));
    else if (pace.chunk > 0)
        say(QStringLiteral("Messages go out in pieces of %1, with pauses of %2 ms.")
                .arg(pieces, grouped(kPauseMs)));
}

static void tellOutcome(const Sent& sent, const Port& port, qint64 elapsed, qint64 bytesLeft)
{
    const QString data =
        counted(sent.messages, "message") + QLatin1String(", ") + counted(sent.bytes, "byte");
    if (bytesLeft > 0)
        say(QStringLiteral("%1, handed to %2 in %3. Up to %4 may have been lost when the port was "
                           "closed (--no-wait).")
                .arg(data, describe(port, true), duration(elapsed), counted(bytesLeft, "byte")));
    else
        say(QStringLiteral("%1, sent to %2 in %3.")
                .arg(data, describe(port, true), duration(elapsed)));
}

void sendCommand(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("send"),
                     QStringLiteral("Sends messages to an output. Checks all of them first: if one "
                                    "is wrong, nothing is sent."));
    line.addExample(QStringLiteral("1 on C4 100"), QStringLiteral("plays middle C."));
    line.addExample(QStringLiteral("Synth ch 2 pc 5 cc 7 127"),
                    QStringLiteral("selects program 5 and full volume on channel 2 of the output "
                                   "with \"synth\" in its name."));
    line.addExample(QStringLiteral("1 panic"), QStringLiteral("ends all notes on all channels."));
    line.addExample(QStringLiteral("1 F0 7E 7F 06 01 F7"), QStringLiteral("sends any bytes."));
    line.addExample(QStringLiteral("1 dump.syx --gap 200"),
                    QStringLiteral("sends the messages of a file, 200 ms apart."));
    line.addExample(QStringLiteral("1 dump.syx --rate 1000 --chunk 128"),
                    QStringLiteral("sends them slowly, for a slow instrument."));
    line.addPort(QStringLiteral("PORT"), true);
    line.addArgument(
        QStringLiteral("MESSAGE"),
        QStringLiteral("Hexadecimal bytes, F0 7D 10 F7 or 903C64; words with decimal numbers: on "
                       "NOTE [VELOCITY], off NOTE [VELOCITY], cc CONTROLLER VALUE, pc PROGRAM, pb "
                       "VALUE (0 to 16383, centre 8192), cp PRESSURE, pp NOTE PRESSURE, ch CHANNEL "
                       "for the words after it, panic; the name of a .syx or .mid file, whose "
                       "SysEx messages are sent; or - for standard input."),
        QStringLiteral("MESSAGE…"));
    line.addOption(QStringLiteral("file"),
                   QStringLiteral("Sends the SysEx messages of this file, whatever its name."),
                   QStringLiteral("FILE"));
    line.addOption(QStringLiteral("gap"),
                   QStringLiteral("Silence on the wire between two messages, in milliseconds."),
                   QStringLiteral("MS"), QStringLiteral("0"));
    line.addOption(QStringLiteral("rate"),
                   QStringLiteral("Sends at most N bytes a second; a MIDI wire carries 3125."),
                   QStringLiteral("N"));
    line.addOption(
        QStringLiteral("chunk"),
        QStringLiteral("Sends a message in pieces of N bytes, up to 4096, with pauses of "
                       "100 ms, or as --rate asks."),
        QStringLiteral("N"));
    addLenientOption(line);
    line.addOption(QStringLiteral("no-wait"),
                   QStringLiteral("Closes the port at once. Data in flight is lost."));
    if (!line.parse(arguments))
        return;
    const bool fromFile = line.isSet("file");
    line.expectArguments(fromFile ? 1 : 2, fromFile ? 1 : INT_MAX);
    const Pace pace = paceOf(line);
    const QVector<QByteArray> messages = fromFile ? messagesOfFile(line.value("file"), line)
                                                  : messagesOf(line.arguments().mid(1), line);
    QVector<int> sizes;
    for (const QByteArray& message : messages)
        sizes.append(lengthOf(message));

    const Session session(line.store());
    const Port port = session.openOutput(line.arguments().first());
    tellPace(pace);
    QElapsedTimer clock;
    clock.start();
    const Sent sent =
        Sender(session.transport(), pace, Progress(sizes, pace), clock).sendAll(messages);
    if (!line.isSet("no-wait"))
        waitUntilThrough(sent.onTheirWay, clock);
    if (sent.messages < messages.size())
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Interrupted: %1 of %2 sent.")
                          .arg(grouped(sent.messages), counted(messages.size(), "message"))};
    tellOutcome(sent, port, clock.elapsed(),
                line.isSet("no-wait") ? sent.onTheirWay.bytesLeft(clock.elapsed()) : 0);
}
