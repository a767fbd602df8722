// Any stored table and any device names: the rules by which a run reads and extends the table.

#include "tests/fuzz/Fuzz.h"

#include <QMap>
#include <QSet>
#include <objbase.h>

namespace {

const char kOrganization[] = "Lumora Fuzz";
const char kApplication[] = "Port Table";

struct Table
{
    QStringList names;
    QStringList ids;
};

QString key(bool output, const char* list)
{
    return QLatin1String(output ? "/preferences/SystemPorts/Output/"
                                : "/preferences/SystemPorts/Input/") +
           QLatin1String(list);
}

Table stored(bool output)
{
    const QSettings settings(QSettings::SystemScope, kOrganization, kApplication);
    return {settings.value(key(output, "portNames")).toStringList(),
            settings.value(key(output, "portIds")).toStringList()};
}

void store(bool output, const Table& table)
{
    QSettings settings(QSettings::SystemScope, kOrganization, kApplication);
    settings.setValue(key(output, "portNames"), table.names);
    settings.setValue(key(output, "portIds"), table.ids);
}

/// Labels of devices that may be there, and any text; identifiers, and any text.
Table anyTable(FuzzInput& fuzz)
{
    Table table;
    for (unsigned left = fuzz.below(6); left > 0; --left) {
        if (fuzz.flag())
            table.names += QString::number(fuzz.below(5)) + QLatin1Char(';') + fuzz.text();
        else
            table.names += fuzz.text();
    }
    auto ids = static_cast<unsigned>(table.names.size());
    if (fuzz.flag())
        ids = fuzz.below(6);
    for (; ids > 0; --ids) {
        switch (fuzz.below(4)) {
        case 0:
            table.ids += fuzz.text();
            break;
        case 1:
            table.ids += fuzz.uuid().toString().toUpper();
            break;
        default:
            table.ids += fuzz.uuid().toString();
        }
    }
    return table;
}

std::vector<QString> anyDevices(FuzzInput& fuzz, bool output)
{
    std::vector<QString> names;
    for (unsigned left = fuzz.below(5); left > 0; --left) {
        sim::DeviceOptions options;
        if (fuzz.below(8) == 0)
            options.capsResult = MMSYSERR_ERROR;
        const std::u16string name = fuzz.text().toStdU16String();
        if (output)
            sim::addOutput(name, options);
        else
            sim::addInput(name, options);
        // As the capability record holds it: up to the first zero, or to the end of its field.
        const std::u16string cut =
            name.substr(0, std::min<std::size_t>(name.find(u'\0'), MAXPNAMELEN));
        names.push_back(options.capsResult ? QString() : fromUnits(cut));
    }
    return names;
}

/// Every device has its entry, under the identifier that the table has for its label.
void checkMap(const TSystemMIDIMap& map, const Table& table, const std::vector<QString>& devices)
{
    QMap<QUuid, QString> fromTable;
    QSet<QString> fresh;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const QString label = QString::number(i + 1) + QLatin1Char(';') + devices[i];
        const auto k = table.names.indexOf(label);
        if (k >= 0 && k < table.ids.size())
            fromTable[QUuid(table.ids[k])] = label; // of two with one identifier the later one
        else
            fresh += label;
    }
    FUZZ_CHECK(map.size() == fromTable.size() + fresh.size());
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        const auto known = fromTable.constFind(entry.key());
        if (known != fromTable.constEnd())
            FUZZ_CHECK(known.value() == entry.value());
        else
            FUZZ_CHECK(!entry.key().isNull() && fresh.contains(entry.value()));
    }
}

/// The table keeps what it had and gains the identifiers that it did not have, in their order.
void checkGrowth(const Table& before, const Table& after, const TSystemMIDIMap& map)
{
    Table expected = before;
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        if (before.ids.contains(entry.key().toString()))
            continue;
        expected.names += entry.value();
        expected.ids += entry.key().toString();
    }
    FUZZ_CHECK(after.names == expected.names && after.ids == expected.ids);
}

void checkLookups(const IMIDIPortAccessor& accessor, const QString& name)
{
    QUuid expected;
    for (const bool output : {false, true}) {
        const TSystemMIDIMap& map = accessor.plugs(output);
        FUZZ_CHECK(accessor.numberOfPlugs(output) == map.size());
        for (auto entry = map.begin(); expected.isNull() && entry != map.end(); ++entry) {
            QStringList pieces = entry.value().split(QLatin1Char(';'));
            pieces.removeAll(QString());
            if (pieces.size() >= 2 && pieces[1] == name) {
                expected = entry.key();
                break;
            }
        }
    }
    FUZZ_CHECK(accessor.portIdentity(name, false) == expected);
    FUZZ_CHECK(accessor.portIdentity(name, true) == expected);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const QTemporaryDir folder;
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, folder.path());

    FuzzInput fuzz(data, size);
    const FuzzRun run;
    Table tables[2];
    std::vector<QString> devices[2];
    for (const bool output : {false, true}) {
        store(output, anyTable(fuzz));
        tables[output] = stored(output);
        devices[output] = anyDevices(fuzz, output);
    }
    const QString name = fuzz.text();

    TSystemMIDIMap maps[2];
    for (int round = 0; round < 2; ++round) {
        IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
        checkLookups(*accessor, name);
        for (const bool output : {false, true}) {
            const Table& table = tables[output];
            checkMap(accessor->plugs(output), table, devices[output]);
            // Lists of different lengths are extended as they are.
            if (round == 1 && table.names.size() == table.ids.size())
                FUZZ_CHECK(accessor->plugs(output) == maps[output]);
            maps[output] = accessor->plugs(output);
        }
        accessor->Release();
        for (const bool output : {false, true}) {
            const Table after = stored(output);
            checkGrowth(tables[output], after, maps[output]);
            tables[output] = after;
        }
    }
    return 0;
}
