#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/MidiBytes.h"
#include "tools/Receiver.h"
#include "tools/Text.h"

#include <QDir>
#include <QSaveFile>

#include <climits>

using std::chrono::steady_clock;

[[noreturn]] static void refuseToWrite(const QSaveFile& file)
{
    throw Failure{ExitStatus::Failed, QStringLiteral("%1 cannot be written: %2")
                                          .arg(QDir::toNativeSeparators(file.fileName()),
                                               sentence(file.errorString()))};
}

namespace {

struct Recorded
{
    int messages = 0;
    qint64 bytes = 0;
    int damaged = 0;
};

} // namespace

// Until `count` messages are in the file, none is complete for `idle` after the last one, or
// Ctrl-C. The library shows nothing of a message before it is complete.
static Recorded recordInto(QSaveFile& file, Receiver& receiver, int count,
                           steady_clock::duration idle)
{
    Recorded recorded;
    ReceivedMessage message;
    auto end = steady_clock::now() + kForever;
    while (recorded.messages < count && receiver.next(&message, end)) {
        if (!isSysEx(message.bytes))
            continue; // a channel message
        end = message.time + idle;
        const QByteArray sysEx = withoutRealTime(message.bytes);
        if (!isWholeSysEx(sysEx)) {
            ++recorded.damaged;
            say(QStringLiteral("A message of %1 is left out: it has status bytes within, as after "
                               "bytes were lost.")
                    .arg(counted(sysEx.size(), "byte")));
            continue;
        }
        if (file.write(sysEx) != sysEx.size())
            refuseToWrite(file);
        ++recorded.messages;
        recorded.bytes += sysEx.size();
    }
    return recorded;
}

void recordCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("record"),
        QStringLiteral(
            "Writes the SysEx messages that arrive at an input to a .syx file, until Ctrl-C. "
            "The file appears, whole, at the end."));
    line.addPort(QStringLiteral("PORT"), false);
    line.addArgument(QStringLiteral("FILE"),
                     QStringLiteral("The file, which is replaced if it exists."),
                     QStringLiteral("FILE"));
    line.addOption(QStringLiteral("idle"),
                   QStringLiteral("Ends when no further message is complete so many milliseconds "
                                  "after one. Must be longer than the longest message takes: 0.32 "
                                  "ms a byte at MIDI's wire speed."),
                   QStringLiteral("MS"));
    line.addOption(QStringLiteral("count"),
                   QStringLiteral("Ends after so many messages; fewer are a failure, and "
                                  "nothing is written."),
                   QStringLiteral("N"));
    if (!line.parse(arguments))
        return;
    line.expectArguments(2, 2);
    const bool counting = line.isSet("count");
    const int count = counting ? line.number("count", 1, INT_MAX) : INT_MAX;
    const steady_clock::duration idle =
        line.isSet("idle")
            ? steady_clock::duration(std::chrono::milliseconds(line.number("idle", 1, INT_MAX)))
            : steady_clock::duration(kForever);

    Receiver receiver;
    Session session(line.store());
    QSaveFile file(line.arguments().at(1));
    if (!file.open(QIODevice::WriteOnly))
        refuseToWrite(file);
    const Port port = session.openInput(line.arguments().first(), receiver);
    say(QStringLiteral("Recording from %1; Ctrl-C ends.").arg(describe(port, false)));

    const Recorded recorded = recordInto(file, receiver, count, idle);
    session.transport().closeInput();
    // An uncommitted file leaves nothing behind.
    if (recorded.messages == 0)
        throw Failure{recorded.damaged > 0 ? ExitStatus::BadData : ExitStatus::Failed,
                      QStringLiteral("No whole SysEx message arrived; nothing is written.")};
    if (counting && recorded.messages < count)
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Only %1 of %2 arrived; nothing is written.")
                          .arg(grouped(recorded.messages), counted(count, "message"))};
    if (!file.commit())
        refuseToWrite(file);
    say(QStringLiteral("%1, %2, written to %3.")
            .arg(counted(recorded.messages, "message"), counted(recorded.bytes, "byte"),
                 QDir::toNativeSeparators(file.fileName())));
    receiver.expectNothingLost();
    if (recorded.damaged > 0)
        throw Failure{
            ExitStatus::BadData,
            QStringLiteral("%1 left out.").arg(counted(recorded.damaged, "damaged message"))};
}
