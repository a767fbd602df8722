#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Session.h"
#include "tools/Text.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

struct Direction
{
    QVector<Port> ports;
    QVector<Port> known; // those whose identifiers the store had before this run
};

struct Listing
{
    Direction directions[2]; // by direction flag
    bool stored = true;      // whether the store has all identifiers after this run
};

} // namespace

static bool contains(const QVector<Port>& ports, const Port& wanted)
{
    return std::any_of(ports.begin(), ports.end(),
                       [&](const Port& port) { return port.id == wanted.id; });
}

static Listing listPorts(const Store& store)
{
    Listing listing;
    {
        const Session session(store);
        for (const bool output : {false, true}) {
            Direction& direction = listing.directions[output];
            direction.ports = session.ports(output);
            direction.known = storedPorts(store, direction.ports, output);
        }
    }
    // The end of the session stored the new identifiers.
    for (const bool output : {false, true}) {
        const QVector<Port>& ports = listing.directions[output].ports;
        if (storedPorts(store, ports, output).size() != ports.size())
            listing.stored = false;
    }
    return listing;
}

// Names come last, since their width on a terminal is unknown.
static QString asText(const Listing& listing)
{
    QString text;
    for (const bool output : {false, true}) {
        const Direction& direction = listing.directions[output];
        text += output ? QStringLiteral("Outputs\n") : QStringLiteral("Inputs\n");
        for (const Port& port : direction.ports)
            text += QStringLiteral("%1  %2  %3  ")
                        .arg(QString::number(port.number).rightJustified(3), port.id.toString(),
                             contains(direction.known, port) ? QStringLiteral("known")
                                                             : QStringLiteral("new  ")) +
                    printable(port.name) + QLatin1Char('\n');
        if (direction.ports.isEmpty())
            text += QStringLiteral("  none\n");
    }
    return text;
}

static QString asJson(const Listing& listing, const Store& store)
{
    QJsonObject json;
    for (const bool output : {false, true}) {
        const Direction& direction = listing.directions[output];
        QJsonArray ports;
        for (const Port& port : direction.ports)
            ports.append(QJsonObject{{QStringLiteral("number"), port.number},
                                     {QStringLiteral("name"), port.name},
                                     {QStringLiteral("identifier"), port.id.toString()},
                                     {QStringLiteral("known"), contains(direction.known, port)}});
        json.insert(output ? QStringLiteral("outputs") : QStringLiteral("inputs"), ports);
    }
    json.insert(QStringLiteral("store"),
                QJsonObject{{QStringLiteral("organization"), store.organization},
                            {QStringLiteral("application"), store.application},
                            {QStringLiteral("stored"), listing.stored}});
    return QString::fromUtf8(QJsonDocument(json).toJson());
}

void listCommand(const QStringList& arguments)
{
    CommandLine line(
        QStringLiteral("list"),
        QStringLiteral(
            "Shows the MIDI inputs and outputs: number, name, identifier, and whether the "
            "identifier was known before this run."));
    line.addExample(QString(), QStringLiteral("lists the ports."));
    line.addExample(QStringLiteral("--organization COMPANY --application EDITOR"),
                    QStringLiteral("shows the identifiers that another program sees."));
    line.addOption(QStringLiteral("json"), QStringLiteral("Prints JSON."));
    if (!line.parse(arguments))
        return;
    line.expectArguments(0, 0);

    const Store store = line.store();
    const Listing listing = listPorts(store);
    print(line.isSet("json") ? asJson(listing, store) : asText(listing));
    if (!listing.stored)
        say(QStringLiteral(
                "lumora-midi: The identifiers of new ports are not stored in "
                "HKEY_LOCAL_MACHINE\\Software\\%1\\%2 and will differ next time, usually because "
                "only administrators may write there. Run \"lumora-midi list\" once as "
                "administrator with the ports connected to store them for all users.")
                .arg(store.organization, store.application));
}
