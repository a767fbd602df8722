#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/MidiBytes.h"
#include "tools/Pacing.h"
#include "tools/StatusLine.h"
#include "tools/SysExFile.h"
#include "tools/Text.h"

#include <algorithm>
#include <climits>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The default of --longest: more than most instruments send in one message.
static const int kLongest = 32768;
static const int kMostLongest = 100 * 1000 * 1000;

namespace {

struct Recording
{
    SysExFile& file;
    int damaged = 0;
    bool wentIdle = false;
};

} // namespace

// Records until the file has `count` messages, no message is completed within `idle` after the last
// one, or Ctrl-C. The library delivers only complete messages.
static void record(Recording& recording, Receiver& receiver, int count, steady_clock::duration idle)
{
    auto end = steady_clock::now() + kForever;
    StatusLine line(receiver, [&] {
        const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
        return recording.file.contents() +
               (left < kForever / 2
                    ? QLatin1String("; ends in ") + clockTime(std::max<qint64>(0, left.count()))
                    : QString());
    });
    ReceivedMessage message;
    while (recording.file.messages() < count) {
        if (!line.next(&message, end)) {
            recording.wentIdle = !interrupted();
            return;
        }
        if (!isSysEx(message.bytes))
            continue; // a channel message
        end = message.time + idle;
        const QByteArray sysEx = withoutRealTime(message.bytes);
        if (isWholeSysEx(sysEx)) {
            recording.file.append(sysEx);
            continue;
        }
        ++recording.damaged;
        say(QStringLiteral("A message of %1 is left out: it has status bytes inside, so bytes were "
                           "probably lost.")
                .arg(counted(sysEx.size(), "byte")));
    }
}

void recordCommand(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("record"),
                     QStringLiteral("Writes the SysEx messages that arrive at an input to a .syx "
                                    "file until Ctrl-C. The file appears, complete, at the end."));
    line.addExample(QStringLiteral("1 dump.syx"),
                    QStringLiteral("records until Ctrl-C; start the dump on the instrument."));
    line.addExample(QStringLiteral("1 dump.syx --count 64"),
                    QStringLiteral("ends after 64 messages."));
    line.addExample(QStringLiteral("1 dump.syx --idle 1000"),
                    QStringLiteral("ends when the instrument falls silent."));
    line.addPort(QStringLiteral("PORT"), false);
    line.addArgument(QStringLiteral("FILE"),
                     QStringLiteral("The file, which is replaced if it exists."),
                     QStringLiteral("FILE"));
    line.addOption(QStringLiteral("count"),
                   QStringLiteral("Ends after N messages. If fewer come, nothing is written."),
                   QStringLiteral("N"));
    line.addOption(QStringLiteral("idle"),
                   QStringLiteral("Ends after MS milliseconds of silence after a message, plus the "
                                  "time of the --longest one on the wire: a message arrives only "
                                  "when it is complete."),
                   QStringLiteral("MS"));
    line.addOption(QStringLiteral("longest"),
                   QStringLiteral("The longest message to expect, in bytes (default 32768)."),
                   QStringLiteral("BYTES"), QString::number(kLongest));
    if (!line.parse(arguments))
        return;
    line.expectArguments(2, 2);
    const bool counting = line.isSet("count");
    const int count = counting ? line.number("count", 1, INT_MAX) : INT_MAX;
    const milliseconds silence(line.isSet("idle") ? line.number("idle", 1, INT_MAX) : 0);
    const int longest = line.number("longest", 1, kMostLongest);
    const milliseconds grace(wireMs(longest));

    Receiver receiver;
    Session session(line.store());
    SysExFile file(line.arguments().at(1));
    const Port port = session.openInput(line.arguments().first(), receiver);
    say(QStringLiteral("Recording from %1; Ctrl-C ends.").arg(describe(port, false)));

    Recording recording{file};
    record(recording, receiver, count,
           line.isSet("idle") ? steady_clock::duration(silence + grace)
                              : steady_clock::duration(kForever));
    session.transport().closeInput();
    // A file that is not committed leaves nothing behind.
    if (file.messages() == 0)
        throw Failure{recording.damaged > 0 ? ExitStatus::BadData : ExitStatus::Failed,
                      QStringLiteral("No complete SysEx message arrived; nothing is written.")};
    if (counting && file.messages() < count)
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Only %1 of %2 arrived; nothing is written.")
                          .arg(grouped(file.messages()), counted(count, "message"))};
    file.commit();
    say(file.outcome());
    if (recording.wentIdle)
        say(QStringLiteral("No message was completed within %1, enough for one of up to %2: a "
                           "longer one would be missing (--longest).")
                .arg(duration((silence + grace).count()), counted(longest, "byte")));
    else if (!counting)
        say(QStringLiteral("A message that was not complete yet is missing."));
    receiver.expectNothingLost();
    if (recording.damaged > 0)
        throw Failure{
            ExitStatus::BadData,
            QStringLiteral("%1 left out.").arg(counted(recording.damaged, "damaged message"))};
}
