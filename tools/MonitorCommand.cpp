#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Decode.h"
#include "tools/Failure.h"
#include "tools/Filter.h"
#include "tools/Interruption.h"
#include "tools/MidiBytes.h"
#include "tools/StatusLine.h"
#include "tools/Text.h"

#include <QJsonDocument>

#include <algorithm>
#include <climits>

using std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

namespace {

enum class Form { Text, Raw, Json };

// The format of an output line.
struct Layout
{
    Form form = Form::Text;
    bool times = false;
    bool wholeSysEx = false;
    QVector<Port> ports; // by source
};

// The total number of messages, and the current rates.
class Traffic
{
public:
    void count(qint64 length)
    {
        ++messages;
        bytes += length;
    }

    QString text()
    {
        const auto now = steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - since).count();
        if (seconds >= 1) {
            rates = QStringLiteral(", %1/s, %2/s")
                        .arg(grouped(qRound64(double(messages - messagesBefore) / seconds)),
                             counted(qRound64(double(bytes - bytesBefore) / seconds), "byte"));
            messagesBefore = messages;
            bytesBefore = bytes;
            since = now;
        }
        return counted(messages, "message") + rates;
    }

private:
    qint64 messages = 0;
    qint64 bytes = 0;
    // At the last computation of the rates:
    qint64 messagesBefore = 0;
    qint64 bytesBefore = 0;
    steady_clock::time_point since = steady_clock::now();
    QString rates;
};

} // namespace

static Colour colourOf(const QByteArray& message)
{
    switch (kindOf(message)) {
    case Kind::Note:
        return Colour::Green;
    case Kind::SysEx:
        return Colour::Cyan;
    case Kind::Other:
        return Colour::Magenta;
    default:
        return Colour::Yellow;
    }
}

static QString jsonLine(const ReceivedMessage& message, const Layout& layout, double time,
                        double step)
{
    QJsonObject json = toJson(message.bytes);
    json.insert(QStringLiteral("input"), layout.ports.at(message.source).number);
    json.insert(QStringLiteral("time"), time);
    if (layout.times)
        json.insert(QStringLiteral("step"), step);
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

static QString secondsText(double milliseconds)
{
    return QString::number(milliseconds / 1000, 'f', 3);
}

// `time` is in milliseconds since the start, `step` since the previous message.
static QString lineOf(const ReceivedMessage& message, const Layout& layout, double time,
                      double step)
{
    if (layout.form == Form::Json)
        return jsonLine(message, layout, time, step) + QLatin1Char('\n');
    QString text;
    if (layout.times)
        text += secondsText(time).rightJustified(9) +
                (QLatin1Char('+') + secondsText(step)).rightJustified(9) + QLatin1String("  ");
    if (layout.ports.size() > 1) {
        const Port& port = layout.ports.at(message.source);
        text += QStringLiteral("%1 %2: ").arg(port.number).arg(printable(port.name));
    }
    if (layout.form == Form::Raw)
        return text + hex(trimmed(message.bytes)) + QLatin1Char('\n');
    text += toText(message.bytes) + QLatin1Char('\n');
    return layout.wholeSysEx && isSysEx(message.bytes) ? text + hexDump(message.bytes) : text;
}

static void monitor(Receiver& receiver, const Layout& layout, const Filter& filter, int count,
                    steady_clock::time_point start, steady_clock::time_point end)
{
    Traffic traffic;
    StatusLine status(receiver, [&] { return traffic.text(); });
    ReceivedMessage message;
    auto before = start;
    for (int shown = 0; shown < count && !interrupted() && status.next(&message, end);) {
        traffic.count(trimmed(message.bytes).size());
        if (!filter.passes(message.bytes))
            continue;
        const QString text = lineOf(message, layout, Milliseconds(message.time - start).count(),
                                    Milliseconds(message.time - before).count());
        if (!print(text, colourOf(message.bytes)))
            return; // the reader has gone
        before = message.time;
        ++shown;
    }
    status.clear();
    receiver.expectNothingLost();
}

static Layout layoutOf(const CommandLine& line)
{
    const bool raw = line.isSet("raw");
    const bool json = line.isSet("json");
    const bool full = line.isSet("full");
    if (int(raw) + int(json) + int(full) > 1)
        throw Failure{ExitStatus::WrongUsage,
                      QStringLiteral("--raw, --json and --full are mutually exclusive.")};
    Layout layout;
    layout.form = raw ? Form::Raw : json ? Form::Json : Form::Text;
    layout.times = line.isSet("time");
    layout.wholeSysEx = full;
    return layout;
}

static Filter filterOf(const CommandLine& line)
{
    Filter filter;
    if (line.isSet("channel"))
        filter.setChannels(line.value("channel"));
    if (line.isSet("only"))
        filter.setKinds(line.value("only"));
    if (line.isSet("maker"))
        filter.setMaker(line.value("maker"));
    return filter;
}

static Port openOnce(Session& session, const QString& text, Receiver& receiver,
                     const QVector<Port>& open)
{
    const Port port = findPort(session.ports(false), text, false);
    for (const Port& other : open) {
        if (other.number == port.number)
            throw Failure{ExitStatus::WrongUsage,
                          QStringLiteral("The %1 is named twice.").arg(describe(port, false))};
    }
    return session.openInput(text, receiver);
}

void monitorCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("monitor"),
        QStringLiteral("Prints the messages that arrive at one or more inputs, one per "
                       "line, until Ctrl-C. Shows a message if it passes all of the "
                       "filters --channel, --only and --maker."));
    line.addExample(QStringLiteral("1"), QStringLiteral("prints all that arrives at input 1."));
    line.addExample(QStringLiteral("keys pads --time --only note,cc"),
                    QStringLiteral("prints notes and controllers of two inputs, with times."));
    line.addExample(QStringLiteral("1 --only sysex --maker roland --full"),
                    QStringLiteral("prints one maker's SysEx in full."));
    line.addArgument(QStringLiteral("PORT"),
                     QStringLiteral("An input: number, name, part of a name, or identifier."),
                     QStringLiteral("PORT…"));
    line.addOption(QStringLiteral("time"),
                   QStringLiteral("Begins each line with the seconds since the start and since the "
                                  "line before."));
    line.addOption(QStringLiteral("channel"),
                   QStringLiteral("Shows only channel messages of these channels: 1,2,10-16."),
                   QStringLiteral("LIST"));
    line.addOption(QStringLiteral("only"),
                   QStringLiteral("Shows only these kinds: note, pressure, cc, pc, pb, sysex."),
                   QStringLiteral("KINDS"));
    line.addOption(
        QStringLiteral("maker"),
        QStringLiteral("Shows only SysEx of one maker: 41, \"00 20 29\" or a part of a name."),
        QStringLiteral("MAKER"));
    line.addOption(QStringLiteral("full"),
                   QStringLiteral("Shows SysEx whole, in hexadecimal and ASCII, with offsets."));
    line.addOption(QStringLiteral("raw"), QStringLiteral("Prints the bytes in hexadecimal."));
    line.addOption(QStringLiteral("json"),
                   QStringLiteral("Prints one JSON object per line, with the time since the start "
                                  "in milliseconds."));
    line.addOption(QStringLiteral("count"), QStringLiteral("Ends after showing N messages."),
                   QStringLiteral("N"));
    line.addOption(QStringLiteral("seconds"), QStringLiteral("Ends after S seconds."),
                   QStringLiteral("S"));
    if (!line.parse(arguments))
        return;
    line.expectArguments(1, INT_MAX);
    Layout layout = layoutOf(line);
    const Filter filter = filterOf(line);
    const int count = line.isSet("count") ? line.number("count", 1, INT_MAX) : INT_MAX;
    const bool timed = line.isSet("seconds");
    const std::chrono::seconds seconds(timed ? line.number("seconds", 1, INT_MAX) : 0);

    Receiver receiver;
    Session session(line.store());
    QStringList names;
    for (const QString& text : line.arguments()) {
        layout.ports.append(openOnce(session, text, receiver, layout.ports));
        names.append(describe(layout.ports.last(), false));
    }
    const auto start = steady_clock::now();
    const auto end = timed ? start + seconds : start + kForever;
    say(QStringLiteral("Listening to %1; Ctrl-C ends.").arg(names.join(QLatin1String(", "))));

    // What arrived before the end is still printed, unless Ctrl-C ends the program.
    receiver.endAt(end);
    monitor(receiver, layout, filter, count, start, end);
}
