#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Decode.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/MidiBytes.h"
#include "tools/Pacing.h"
#include "tools/Receiver.h"
#include "tools/Statistics.h"
#include "tools/Text.h"

#include <algorithm>
#include <climits>
#include <thread>

using std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

static const int kShortestSysEx = 4;
static const int kLatencySamples = 100;

// F0 7D, data bytes that differ between rounds and chunks, and F7.
static QByteArray testMessage(int bytes, int round)
{
    QByteArray message(bytes, '\0');
    unsigned int noise = static_cast<unsigned int>(round) + 1;
    for (char& byte : message) {
        noise = noise * 1664525u + 1013904223u;
        byte = static_cast<char>(noise >> 25);
    }
    message[0] = static_cast<char>(kSysExStart);
    message[1] = '\x7D'; // the identifier for test use
    message[bytes - 1] = static_cast<char>(kSysExEnd);
    return message;
}

static QString chunkText(int bytes)
{
    const QVector<int> chunks = chunksOf(bytes);
    const int count = static_cast<int>(chunks.size());
    if (count == 1)
        return QStringLiteral("1 chunk");
    QString text = QStringLiteral("%1 chunks (").arg(count);
    const int shown = 4;
    for (int i = 0; i < count; ++i) {
        if (count > shown && i == shown - 2) {
            text += QStringLiteral("… + ");
            i = count - 1;
        }
        text += grouped(chunks.at(i)) + (i + 1 < count ? QStringLiteral(" + ") : QString());
    }
    return text + QStringLiteral("), pauses of at least %1 ms").arg(kPauseMs);
}

static QString throughputText(qint64 bytes, double milliseconds)
{
    return grouped(qRound64(double(bytes) * 1000 / std::max(milliseconds, 0.001))) +
           QStringLiteral(" bytes/s");
}

static QString differenceText(const QByteArray& sent, const QByteArray& received)
{
    const int common = std::min(lengthOf(sent), lengthOf(received));
    int offset = 0;
    while (offset < common && sent.at(offset) == received.at(offset))
        ++offset;
    if (offset == common)
        return QStringLiteral("%1 sent, but %2 received, identical up to there")
            .arg(counted(sent.size(), "byte"), counted(received.size(), "byte"));
    return QStringLiteral("sent %1, but received %2 at offset %3 (%4 sent, %5 received)")
        .arg(hex(sent.mid(offset, 1)), hex(received.mid(offset, 1)), grouped(offset),
             counted(sent.size(), "byte"), counted(received.size(), "byte"));
}

namespace {

// An open output and input, connected by a cable.
class Loop
{
public:
    Loop(TMIDITransport& transport, Receiver& receiver) : transport(transport), receiver(receiver)
    {}

    // Sends `message` and compares it with the next incoming message of its kind, SysEx or not.
    // Returns the time in milliseconds. Throws Failure if it differs or does not come.
    double roundTrip(const QByteArray& message)
    {
        const auto start = steady_clock::now();
        send(message);
        sendingTime = steady_clock::now() - start;

        const auto deadline = start + std::chrono::milliseconds(replyMs(lengthOf(message)));
        ReceivedMessage reply;
        do {
            if (!receiver.next(&reply, deadline)) {
                receiver.expectNothingLost();
                throw Failure{ExitStatus::Failed, missingReply(start)};
            }
        } while (isSysEx(reply.bytes) != isSysEx(message)); // somebody may be playing
        const QByteArray received = trimmed(reply.bytes);
        if (received != message)
            throw Failure{
                ExitStatus::Failed,
                QStringLiteral("The reply differs: %1.").arg(differenceText(message, received))};
        return Milliseconds(reply.time - start).count();
    }

    // How long the library took to send the last message.
    qint64 sendingMs() const
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(sendingTime).count();
    }

private:
    // Sends a whole message, even after Ctrl-C.
    void send(const QByteArray& message)
    {
        if (interrupted())
            throw Failure{ExitStatus::Failed, QStringLiteral("Interrupted.")};
        answerInterruption("Ending after this message; Ctrl-C again cuts it short.");
        const bool ok = transport.outputData(lengthOf(message), message.constData());
        answerInterruption(nullptr);
        if (!ok)
            throw Failure{ExitStatus::Failed, QStringLiteral("The output refused the data.")};
        if (interrupted()) {
            // The library does not wait for the last chunk.
            std::this_thread::sleep_for(
                std::chrono::milliseconds(wireMs(chunksOf(lengthOf(message)).last()) + kDriverMs));
            throw Failure{ExitStatus::Failed, QStringLiteral("Interrupted.")};
        }
    }

    static QString missingReply(steady_clock::time_point start)
    {
        if (interrupted())
            return QStringLiteral("Interrupted.");
        const auto waited =
            std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
        return QStringLiteral("No reply within %1. Is the output connected to the input?")
            .arg(duration(waited.count()));
    }

    TMIDITransport& transport;
    Receiver& receiver;
    steady_clock::duration sendingTime{};
};

} // namespace

static void checkSysEx(Loop& loop, int bytes, int times)
{
    // The system's clock may shorten each pause by one tick.
    const qint64 pauses = qint64(chunksOf(bytes).size() - 1) * (kPauseMs - 1);
    double total = 0;
    for (int round = 0; round < times; ++round) {
        const double elapsed = loop.roundTrip(testMessage(bytes, round));
        if (loop.sendingMs() < pauses)
            throw Failure{ExitStatus::Failed,
                          QStringLiteral("The pauses between chunks were too short: sending took "
                                         "%1, the pauses alone take %2.")
                              .arg(duration(loop.sendingMs()), duration(pauses))};
        total += elapsed;
        print(QStringLiteral("Round trip %1 of %2: %3 out in %4; %3 back, identical, after %5\n")
                  .arg(round + 1)
                  .arg(times)
                  .arg(counted(bytes, "byte"), chunkText(bytes), duration(qRound64(elapsed))));
    }
    print(QStringLiteral("Throughput: %1\n").arg(throughputText(qint64(bytes) * times, total)));
}

// An undefined controller on the last channel, which instruments ignore.
static QByteArray latencyMessage(int sample)
{
    const char bytes[] = {'\xBF', '\x03', static_cast<char>(sample & 0x7F)};
    return QByteArray(bytes, sizeof bytes);
}

static void checkLatency(Loop& loop)
{
    QVector<double> latencies;
    for (int sample = 0; sample < kLatencySamples; ++sample)
        latencies.append(loop.roundTrip(latencyMessage(sample)));
    std::sort(latencies.begin(), latencies.end());
    print(QStringLiteral("Latency of %1: min %2 ms, median %3 ms, p99 %4 ms\n")
              .arg(counted(kLatencySamples, "short message"))
              .arg(latencies.first(), 0, 'f', 2)
              .arg(percentile(latencies, 50), 0, 'f', 2)
              .arg(percentile(latencies, 99), 0, 'f', 2));
}

void checkCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("check"),
        QStringLiteral(
            "Sends SysEx and short messages to an output and compares what comes back at an input "
            "that a cable connects to it."));
    line.addExample(QStringLiteral("1 1"),
                    QStringLiteral("sends 10,000 bytes of SysEx and 100 short messages."));
    line.addExample(QStringLiteral("1 1 --bytes 60000 --times 10"),
                    QStringLiteral("sends more, for a cable that fails occasionally."));
    line.addPort(QStringLiteral("OUT"), true);
    line.addPort(QStringLiteral("IN"), false);
    line.addOption(QStringLiteral("bytes"),
                   QStringLiteral("Length of the SysEx message (default 10000)."),
                   QStringLiteral("N"), QStringLiteral("10000"));
    line.addOption(QStringLiteral("times"), QStringLiteral("Number of round trips (default 1)."),
                   QStringLiteral("K"), QStringLiteral("1"));
    if (!line.parse(arguments))
        return;
    line.expectArguments(2, 2);
    // The test message and its copies stay well below the memory of any machine.
    const int bytes = line.number("bytes", kShortestSysEx, 100 * 1000 * 1000);
    const int times = line.number("times", 1, INT_MAX);

    const auto start = steady_clock::now();
    Receiver receiver;
    Session session(line.store());
    const Port output = session.openOutput(line.arguments().at(0));
    const Port input = session.openInput(line.arguments().at(1), receiver);
    print(QStringLiteral("From %1 to %2\n").arg(describe(output, true), describe(input, false)));

    Loop loop(session.transport(), receiver);
    checkSysEx(loop, bytes, times);
    checkLatency(loop);
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
    print(QStringLiteral("Elapsed: %1\n").arg(duration(elapsed.count())));
}
