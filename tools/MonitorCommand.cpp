#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Decode.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/Receiver.h"
#include "tools/Text.h"

#include <QJsonDocument>

#include <climits>

using std::chrono::steady_clock;

static QString jsonLine(const ReceivedMessage& message, steady_clock::time_point start)
{
    using milliseconds = std::chrono::duration<double, std::milli>;
    QJsonObject json = toJson(message.bytes);
    json.insert(QStringLiteral("time"), milliseconds(message.time - start).count());
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

void monitorCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("monitor"),
        QStringLiteral("Prints the messages that arrive at an input, a line each, until Ctrl-C."));
    line.addPort(QStringLiteral("PORT"), false);
    line.addOption(QStringLiteral("count"), QStringLiteral("Ends after so many messages."),
                   QStringLiteral("N"));
    line.addOption(QStringLiteral("seconds"), QStringLiteral("Ends after so many seconds."),
                   QStringLiteral("S"));
    line.addOption(QStringLiteral("raw"), QStringLiteral("Prints the bytes in hexadecimal."));
    line.addOption(QStringLiteral("json"),
                   QStringLiteral("Prints a JSON object a line, with the time since the "
                                  "start in milliseconds."));
    if (!line.parse(arguments))
        return;
    line.expectArguments(1, 1);
    const bool raw = line.isSet("raw");
    const bool json = line.isSet("json");
    if (raw && json)
        throw Failure{ExitStatus::WrongUsage,
                      QStringLiteral("--raw and --json exclude each other.")};
    const int count = line.isSet("count") ? line.number("count", 1, INT_MAX) : INT_MAX;
    const bool timed = line.isSet("seconds");
    const std::chrono::seconds seconds(timed ? line.number("seconds", 1, INT_MAX) : 0);

    Receiver receiver;
    Session session(line.store());
    const Port port = session.openInput(line.arguments().first(), receiver);
    const auto start = steady_clock::now();
    const auto end = timed ? start + seconds : start + kForever;
    say(QStringLiteral("Listening to %1; Ctrl-C ends.").arg(describe(port, false)));

    // At the end, what came before it may still wait to be printed; Ctrl-C gives that up.
    receiver.endAt(end);
    ReceivedMessage message;
    for (int i = 0; i < count && !interrupted() && receiver.next(&message, end); ++i) {
        const QString text = raw    ? hex(trimmed(message.bytes))
                             : json ? jsonLine(message, start)
                                    : toText(message.bytes);
        if (!print(text + QLatin1Char('\n')))
            return; // whoever read this has seen enough
    }
    receiver.expectNothingLost();
}
