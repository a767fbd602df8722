#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Decode.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/MessageSource.h"
#include "tools/MidiBytes.h"
#include "tools/Pacing.h"
#include "tools/StatusLine.h"
#include "tools/SysExFile.h"
#include "tools/Text.h"

#include <algorithm>
#include <climits>
#include <memory>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static const int kDefaultTimeoutMs = 5000;

// To devices with any number.
static const char kIdentityRequest[] = "\xF0\x7E\x7F\x06\x01\xF7";

static bool asksForIdentity(const QStringList& texts)
{
    return texts.size() == 1 && texts.first() == QLatin1String("identity");
}

// Returns when the whole request must have left: the library does not wait for the last chunk.
static steady_clock::time_point sendRequest(TMIDITransport& transport,
                                            const QVector<QByteArray>& request)
{
    const auto start = steady_clock::now();
    const auto elapsed = [&] {
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
    };
    WireQueue queue;
    for (const QByteArray& message : request) {
        if (interrupted())
            throw Failure{ExitStatus::Failed, QStringLiteral("Interrupted.")};
        const int size = lengthOf(message);
        if (!transport.outputData(size, message.constData()))
            throw Failure{ExitStatus::Failed, QStringLiteral("The output refused the request.")};
        queue.sent(size, elapsed());
    }
    return start + milliseconds(queue.emptyAt());
}

namespace {

// The instrument's answers.
class Answers
{
public:
    // `file` may be null.
    Answers(Receiver& receiver, const QVector<QByteArray>& request, SysExFile* file)
        : receiver(receiver), request(request), file(file)
    {}

    // Takes answers until there are `count`, none is completed within `patience`, or Ctrl-C.
    void take(int count, milliseconds patience, steady_clock::time_point start)
    {
        auto end = start + patience;
        StatusLine line(receiver, [&] {
            const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
            return QStringLiteral("%1, %2; waiting %3")
                .arg(counted(answers, "answer"), counted(bytes, "byte"),
                     clockTime(std::max<qint64>(0, left.count())));
        });
        ReceivedMessage message;
        while (answers < count && line.next(&message, end)) {
            if (isSysEx(message.bytes) && takeAnswer(withoutRealTime(message.bytes)))
                end = message.time + patience;
        }
    }

    int answers = 0;
    int damaged = 0;
    bool echoed = false; // the output feeds the input

private:
    bool takeAnswer(const QByteArray& sysEx)
    {
        if (request.contains(sysEx)) {
            echoed = true;
            return false;
        }
        if (!isWholeSysEx(sysEx)) {
            ++damaged;
            say(QStringLiteral("An answer of %1 is damaged: it has status bytes inside, so bytes "
                               "were probably lost.")
                    .arg(counted(sysEx.size(), "byte")));
            return true;
        }
        ++answers;
        bytes += sysEx.size();
        const QString identity = identityText(sysEx);
        print((identity.isEmpty() ? toText(sysEx) : identity) + QLatin1Char('\n'));
        if (file)
            file->append(sysEx);
        return true;
    }

    Receiver& receiver;
    const QVector<QByteArray>& request;
    SysExFile* const file;
    qint64 bytes = 0;
};

} // namespace

static QString missingAnswers(const Answers& answers, int count, milliseconds patience,
                              const char* outcome)
{
    if (interrupted())
        return QStringLiteral("Interrupted: %1 arrived%2.")
            .arg(counted(answers.answers, "answer"), QLatin1String(outcome));
    QString text = answers.answers == 0
                       ? QStringLiteral("No answer was complete within %1%2.")
                             .arg(duration(patience.count()), QLatin1String(outcome))
                       : QStringLiteral("Only %1 of %2 arrived; no other was complete within %3%4.")
                             .arg(grouped(answers.answers), counted(count, "answer"),
                                  duration(patience.count()), QLatin1String(outcome));
    if (answers.echoed)
        text += QStringLiteral(" The request itself came back: the output feeds the input.");
    const qint64 bytes = patience.count() * kWireBytesPerSecond / 1000;
    return text + QStringLiteral(" An answer of more than %1 takes longer (--timeout).")
                      .arg(counted(bytes, "byte"));
}

void requestCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("request"),
        QStringLiteral("Sends a request to an instrument and prints its SysEx answers, "
                       "one per line."));
    line.addExample(
        QStringLiteral("1 1 identity"),
        QStringLiteral("asks the instrument for its maker, family, model and version."));
    line.addExample(QStringLiteral("1 1 F0 43 20 09 F7 --save bank.syx"),
                    QStringLiteral("saves the instrument's dump."));
    line.addExample(QStringLiteral("1 1 all.syx --save bank.syx --count 64"),
                    QStringLiteral("sends a request from a file and saves 64 answers."));
    line.addPort(QStringLiteral("OUT"), true);
    line.addPort(QStringLiteral("IN"), false);
    line.addArgument(QStringLiteral("REQUEST"),
                     QStringLiteral("The word identity, or messages as \"send\" takes them."),
                     QStringLiteral("REQUEST…"));
    line.addOption(
        QStringLiteral("save"),
        QStringLiteral("Writes the answers to this .syx file, replacing an existing one, "
                       "unless any is missing."),
        QStringLiteral("FILE"));
    line.addOption(QStringLiteral("timeout"),
                   QStringLiteral("How long to wait for an answer to be complete, after the "
                                  "request and after each answer, in milliseconds (default 5000, "
                                  "enough for 15,625 bytes on the wire)."),
                   QStringLiteral("MS"), QString::number(kDefaultTimeoutMs));
    line.addOption(
        QStringLiteral("count"),
        QStringLiteral("Ends after N answers; fewer are a failure. Without it, identity ends after "
                       "its first answer, any other request after the --timeout."),
        QStringLiteral("N"));
    addLenientOption(line);
    if (!line.parse(arguments))
        return;
    line.expectArguments(3, INT_MAX);
    const QStringList texts = line.arguments().mid(2);
    const bool identity = asksForIdentity(texts);
    const bool counting = identity || line.isSet("count");
    const int count = line.isSet("count") ? line.number("count", 1, INT_MAX)
                      : identity          ? 1
                                          : INT_MAX;
    const milliseconds patience(line.number("timeout", 1, INT_MAX));
    const QVector<QByteArray> request =
        identity ? QVector<QByteArray>{QByteArray(kIdentityRequest)} : messagesOf(texts, line);

    Receiver receiver;
    Session session(line.store());
    std::unique_ptr<SysExFile> file;
    if (line.isSet("save"))
        file = std::make_unique<SysExFile>(line.value("save"));
    const Port input = session.openInput(line.arguments().at(1), receiver);
    const Port output = session.openOutput(line.arguments().first());
    say(QStringLiteral("Asking %1, listening to %2; Ctrl-C ends.")
            .arg(describe(output, true), describe(input, false)));

    Answers answers(receiver, request, file.get());
    answers.take(count, patience, sendRequest(session.transport(), request));
    session.transport().closeInput();
    if (answers.damaged > 0)
        throw Failure{ExitStatus::BadData,
                      QStringLiteral("%1 damaged%2.")
                          .arg(answers.damaged == 1
                                   ? QStringLiteral("1 answer is")
                                   : grouped(answers.damaged) + QLatin1String(" answers are"),
                               file ? QStringLiteral("; nothing is written") : QString())};
    receiver.expectNothingLost();
    if (interrupted() || answers.answers == 0 || (counting && answers.answers < count))
        throw Failure{ExitStatus::Failed,
                      missingAnswers(answers, count, patience, file ? "; nothing is written" : "")};
    if (file) {
        file->commit();
        say(file->outcome());
    }
    if (!counting)
        say(QStringLiteral("No other answer was complete within %1: one of more than %2 would be "
                           "missing (--timeout, --count).")
                .arg(duration(patience.count()),
                     counted(patience.count() * kWireBytesPerSecond / 1000, "byte")));
}
