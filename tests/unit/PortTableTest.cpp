#include "tests/unit/TestSupport.h"

#include <QSet>
#include <new>
#include <objbase.h>

namespace {

const char kOrganization[] = "Lumora Tests";
const char kApplication[] = "Port Table";

const char kInputNames[] = "/preferences/SystemPorts/Input/portNames";
const char kInputIds[] = "/preferences/SystemPorts/Input/portIds";
const char kOutputNames[] = "/preferences/SystemPorts/Output/portNames";
const char kOutputIds[] = "/preferences/SystemPorts/Output/portIds";

const char kIdA[] = "{aaaaaaaa-0000-4000-8000-000000000001}";
const char kIdB[] = "{bbbbbbbb-0000-4000-8000-000000000002}";

/// A fresh, private system-wide store for each test.
class PortTableTest : public SimTest
{
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        ASSERT_TRUE(folder.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, folder.path());
    }

    static QStringList stored(const char* key)
    {
        QSettings settings(QSettings::SystemScope, kOrganization, kApplication);
        return settings.value(QLatin1String(key)).toStringList();
    }

    static void store(const char* key, const QStringList& list)
    {
        QSettings settings(QSettings::SystemScope, kOrganization, kApplication);
        settings.setValue(QLatin1String(key), list);
    }

    static void setInputs(const std::vector<std::u16string>& names)
    {
        sim::reset();
        for (const std::u16string& name : names)
            sim::addInput(name);
    }

    /// One run of a host: the labels of its inputs by identifier.
    static TSystemMIDIMap run()
    {
        IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
        const TSystemMIDIMap inputs = accessor->plugs(false);
        accessor->Release();
        return inputs;
    }

    QTemporaryDir folder;
};

TEST_F(PortTableTest, TheFirstRunStoresEveryDeviceAndTheSecondReusesIt)
{
    setInputs({u"First", u"Second"});
    sim::addOutput(u"Out");
    const TSystemMIDIMap first = run();
    const QStringList names = stored(kInputNames);
    const QStringList ids = stored(kInputIds);
    EXPECT_EQ(QSet<QString>(names.begin(), names.end()), QSet<QString>({"1;First", "2;Second"}));
    ASSERT_EQ(ids.size(), 2);
    EXPECT_EQ(stored(kOutputNames), QStringList({"1;Out"}));
    EXPECT_EQ(stored(kOutputIds).size(), 1);
    for (int k = 0; k < 2; ++k)
        EXPECT_EQ(first.value(QUuid(ids.at(k))), names.at(k));

    EXPECT_EQ(run(), first);
    EXPECT_EQ(stored(kInputNames), names);
    EXPECT_EQ(stored(kInputIds), ids);
}

TEST_F(PortTableTest, IdentifiersAreStoredInBracesAndLowercase)
{
    setInputs({u"A"});
    run();
    const QString id = stored(kInputIds).at(0);
    EXPECT_EQ(id.size(), 38);
    EXPECT_EQ(id, QUuid(id).toString());
    EXPECT_EQ(id, id.toLower());
}

TEST_F(PortTableTest, NewPortsAreAppendedInTheOrderOfTheirIdentifiers)
{
    setInputs({u"A", u"B", u"C", u"D", u"E"});
    run();
    const QStringList ids = stored(kInputIds);
    ASSERT_EQ(ids.size(), 5);
    for (int k = 1; k < ids.size(); ++k)
        EXPECT_LT(QUuid(ids.at(k - 1)), QUuid(ids.at(k)));
}

TEST_F(PortTableTest, InitWritesNothing)
{
    setInputs({u"A"});
    IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
    EXPECT_EQ(stored(kInputNames), QStringList());
    accessor->Release();
    EXPECT_EQ(stored(kInputNames), QStringList({"1;A"}));
}

TEST_F(PortTableTest, ADeviceThatMovesGetsANewIdentifierAndFindsTheOldOneWhenItReturns)
{
    setInputs({u"Synth"});
    const QUuid old = run().firstKey();
    setInputs({u"Newcomer", u"Synth"});
    const TSystemMIDIMap moved = run();
    EXPECT_FALSE(moved.contains(old));
    EXPECT_EQ(stored(kInputNames).count("1;Synth"), 1);
    EXPECT_EQ(stored(kInputNames).count("2;Synth"), 1);
    EXPECT_EQ(stored(kInputNames).size(), 3);
    setInputs({u"Synth"});
    EXPECT_EQ(run().firstKey(), old);
    EXPECT_EQ(stored(kInputNames).size(), 3);
}

TEST_F(PortTableTest, OfAnInputAndAnOutputWithOneIdentifierPortNameIsTheInputs)
{
    store(kInputNames, {"1;In"});
    store(kInputIds, {kIdA});
    store(kOutputNames, {"1;Out"});
    store(kOutputIds, {kIdA});
    setInputs({u"In"});
    sim::addOutput(u"Out");
    IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
    EXPECT_EQ(accessor->plugs(true).value(QUuid(QString(kIdA))), QString("1;Out"));
    EXPECT_EQ(accessor->portName(QUuid(QString(kIdA))), QString("1;In"));
    accessor->Release();
}

TEST_F(PortTableTest, OfEqualDeviceNamesTheLowestIdentifierIsFound)
{
    store(kInputNames, {"1;Twin", "2;Twin"});
    store(kInputIds, {kIdB, kIdA});
    setInputs({u"Twin", u"Twin"});
    IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
    EXPECT_EQ(accessor->portIdentity("Twin", false), QUuid(QString(kIdA)));
    accessor->Release();
}

TEST_F(PortTableTest, ALabelIsFoundOnlyAsItWasWritten)
{
    store(kInputNames, {"1;synth"});
    store(kInputIds, {kIdA});
    setInputs({u"Synth"});
    EXPECT_NE(run().firstKey(), QUuid(QString(kIdA)));
    EXPECT_EQ(stored(kInputNames), QStringList({"1;synth", "1;Synth"}));
}

TEST_F(PortTableTest, MoreIdentifiersThanNamesStay)
{
    store(kInputNames, {"1;A"});
    store(kInputIds, {kIdA, kIdB});
    setInputs({u"A", u"C"});
    const QUuid fresh = run().key("2;C");
    EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "2;C"}));
    EXPECT_EQ(stored(kInputIds), QStringList({kIdA, kIdB, fresh.toString()}));
}

TEST_F(PortTableTest, AnAssignedAccessorStoresWhereItsSourceDoes)
{
    class Accessor : public WinIMIDIPortAccessor
    {
    public:
        explicit Accessor(const char* application)
            : WinIMIDIPortAccessor(kOrganization, application)
        {}
        ~Accessor() override = default;
    };
    setInputs({u"A"});
    Accessor source(kApplication);
    source.init();
    Accessor* const assigned = new Accessor("Elsewhere");
    *assigned = source;
    assigned->Release();
    EXPECT_EQ(stored(kInputNames), QStringList({"1;A"}));
}

TEST_F(PortTableTest, OfEqualLabelsTheFirstOneCounts)
{
    store(kInputNames, {"1;A", "1;A"});
    store(kInputIds, {kIdB, kIdA});
    setInputs({u"A"});
    EXPECT_EQ(run().firstKey(), QUuid(QString(kIdB)));
}

TEST_F(PortTableTest, ADeviceWithoutANameKeepsItsIdentifierAtItsNumber)
{
    setInputs({u"A", u"B", u""});
    const QUuid id = run().key("3;");
    EXPECT_FALSE(id.isNull());
    EXPECT_TRUE(stored(kInputNames).contains("3;"));
    EXPECT_EQ(run().key("3;"), id);
}

TEST_F(PortTableTest, AnUnreadableIdentifierGivesTheNullOneAndIsAppendedOnce)
{
    store(kInputNames, {"1;A"});
    store(kInputIds, {"no identifier"});
    setInputs({u"A"});
    for (int i = 0; i < 2; ++i) {
        IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
        EXPECT_EQ(accessor->plugs(false).firstKey(), QUuid());
        EXPECT_EQ(accessor->portName(QUuid()), QString("1;A"));
        accessor->Release();
        EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "1;A"}));
        EXPECT_EQ(stored(kInputIds), QStringList({"no identifier", QUuid().toString()}));
    }
}

TEST_F(PortTableTest, ANullIdentifierAmongTheInputsDoesNotHideTheOutputOfThatName)
{
    store(kInputNames, {"1;A"});
    store(kInputIds, {"no identifier"});
    store(kOutputNames, {"1;A"});
    store(kOutputIds, {kIdB});
    setInputs({u"A"});
    sim::addOutput(u"A");
    IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
    EXPECT_EQ(accessor->portIdentity("A", false), QUuid(QString(kIdB)));
    accessor->Release();
}

TEST_F(PortTableTest, AnUppercaseIdentifierIsReadAndAppendedOnceInLowercase)
{
    store(kInputNames, {"1;A"});
    store(kInputIds, {QString(kIdA).toUpper()});
    setInputs({u"A"});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run().firstKey(), QUuid(QString(kIdA)));
        EXPECT_EQ(stored(kInputIds), QStringList({QString(kIdA).toUpper(), kIdA}));
        EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "1;A"}));
    }
}

TEST_F(PortTableTest, TwoLabelsWithOneIdentifierLeaveTheLaterDevicesLabel)
{
    store(kInputNames, {"1;A", "2;B"});
    store(kInputIds, {kIdA, kIdA});
    setInputs({u"A", u"B"});
    const TSystemMIDIMap inputs = run();
    ASSERT_EQ(inputs.size(), 1);
    EXPECT_EQ(inputs.first(), QString("2;B"));
}

TEST_F(PortTableTest, AStoredIdentifierIsNotRelabelled)
{
    store(kInputNames, {"1;A", "2;B"});
    store(kInputIds, {kIdA, kIdB});
    setInputs({u"A"});
    run();
    EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "2;B"}));
    EXPECT_EQ(stored(kInputIds), QStringList({kIdA, kIdB}));
}

TEST_F(PortTableTest, FewerIdentifiersThanNamesIsNoIdentifier)
{
    store(kInputNames, {"1;A", "2;B"});
    store(kInputIds, {kIdA});
    setInputs({u"A", u"B"});
    const TSystemMIDIMap inputs = run();
    EXPECT_EQ(inputs.key("1;A"), QUuid(QString(kIdA)));
    const QUuid fresh = inputs.key("2;B");
    EXPECT_FALSE(fresh.isNull());
    // The lists are not repaired, only appended to equally.
    EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "2;B", "2;B"}));
    EXPECT_EQ(stored(kInputIds), QStringList({kIdA, fresh.toString()}));
}

TEST_F(PortTableTest, TwoAccessorsAtOnceBothStoreTheirsAndTheFirstToReleaseWins)
{
    setInputs({u"A"});
    IMIDIPortAccessor* const one = MIDIPortAccessor(kOrganization, kApplication);
    IMIDIPortAccessor* const two = MIDIPortAccessor(kOrganization, kApplication);
    const QUuid first = one->plugs(false).firstKey();
    EXPECT_NE(first, two->plugs(false).firstKey());
    one->Release();
    two->Release();
    EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "1;A"}));
    EXPECT_EQ(run().firstKey(), first);
}

TEST_F(PortTableTest, AnAccessorThatIsNotReleasedStoresNothing)
{
    class Unreleased : public WinIMIDIPortAccessor
    {
    public:
        Unreleased() : WinIMIDIPortAccessor(kOrganization, kApplication) { init(); }
        ~Unreleased() override = default;
    };
    setInputs({u"A"});
    {
        Unreleased accessor;
        EXPECT_EQ(accessor.numberOfPlugs(false), 1);
    }
    EXPECT_EQ(stored(kInputNames), QStringList());
}

TEST_F(PortTableTest, AFailingIdentifierSourceIsNotReported)
{
    setInputs({u"A", u"B"});
    sim::failCall("CoCreateGuid", 1, {}, sim::kAllFromThere);
    IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
    ASSERT_EQ(accessor->numberOfPlugs(false), 1);
    EXPECT_EQ(accessor->portName(QUuid()), QString("2;B"));
    accessor->Release();
}

TEST_F(PortTableTest, NamesWithSeparatorsAndAnyCharacterSurviveTheStore)
{
    setInputs({u"a;b, c \"d\" \\ @x %41", u"\u00e9\u4e16\U0001F3B9"});
    const TSystemMIDIMap first = run();
    EXPECT_EQ(run(), first);
}

/// The Windows accessor, to be ended with Release(), with init() left to the test.
class OwnAccessor : public WinIMIDIPortAccessor
{
public:
    OwnAccessor() : WinIMIDIPortAccessor(kOrganization, kApplication) {}

protected:
    ~OwnAccessor() override = default;
};

TEST_F(PortTableTest, WithoutDevicesTheFirstRunStoresFourEmptyLists)
{
    setInputs({});
    run();
    for (const char* const key : {kInputNames, kInputIds, kOutputNames, kOutputIds}) {
        EXPECT_TRUE(QSettings(QSettings::SystemScope, kOrganization, kApplication).contains(key));
        EXPECT_EQ(stored(key), QStringList());
    }
}

TEST_F(PortTableTest, WithoutDevicesTheStoredListsStayAsTheyAre)
{
    const QStringList names = {"1;A", "2;B", "odd one out"};
    const QStringList ids = {kIdA, "no identifier"};
    for (const bool output : {false, true}) {
        store(output ? kOutputNames : kInputNames, names);
        store(output ? kOutputIds : kInputIds, ids);
    }
    setInputs({});
    EXPECT_TRUE(run().isEmpty());
    EXPECT_EQ(stored(kInputNames), names);
    EXPECT_EQ(stored(kInputIds), ids);
    EXPECT_EQ(stored(kOutputNames), names);
    EXPECT_EQ(stored(kOutputIds), ids);
}

TEST_F(PortTableTest, ASecondInitGivesADeviceThatIsNotStoredASecondIdentifier)
{
    store(kInputNames, {"1;Stored"});
    store(kInputIds, {kIdA});
    setInputs({u"Stored", u"New"});
    auto* const accessor = new OwnAccessor;
    accessor->init();
    const TSystemMIDIMap first = accessor->plugs(false);
    accessor->init();
    const TSystemMIDIMap both = accessor->plugs(false);
    EXPECT_EQ(both.size(), 3);
    EXPECT_EQ(both.keys("1;Stored"), QList<QUuid>{QUuid(QString(kIdA))});
    EXPECT_EQ(both.keys("2;New").size(), 2);
    EXPECT_TRUE(both.keys("2;New").contains(first.key("2;New")));
    accessor->Release();
    EXPECT_EQ(stored(kInputNames), QStringList({"1;Stored", "2;New", "2;New"}));
}

TEST_F(PortTableTest, OfTwoUnreadableIdentifiersTheLaterDevicesLabelHasTheNullOne)
{
    store(kInputNames, {"1;A", "2;B"});
    store(kInputIds, {"no identifier", ""});
    setInputs({u"A", u"B"});
    for (int i = 0; i < 2; ++i) {
        const TSystemMIDIMap inputs = run();
        ASSERT_EQ(inputs.size(), 1);
        EXPECT_EQ(inputs.value(QUuid()), QString("2;B"));
        EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "2;B", "2;B"}));
        EXPECT_EQ(stored(kInputIds), QStringList({"no identifier", "", QUuid().toString()}));
    }
}

TEST_F(PortTableTest, AnIdentifierWithoutBracesIsReadAndAppendedOnceWithThem)
{
    const QString bare = QString(kIdA).mid(1, 36);
    store(kInputNames, {"1;A"});
    store(kInputIds, {bare});
    setInputs({u"A"});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run().firstKey(), QUuid(QString(kIdA)));
        EXPECT_EQ(stored(kInputNames), QStringList({"1;A", "1;A"}));
        EXPECT_EQ(stored(kInputIds), QStringList({bare, kIdA}));
    }
}

TEST_F(PortTableTest, ANameWithHalvesOfSurrogatePairsKeepsItsIdentifier)
{
    const std::u16string name = {u'a', 0xD83C, u'b', 0xDFB9, u'c', 0xD83C};
    setInputs({name});
    const TSystemMIDIMap first = run();
    ASSERT_EQ(first.size(), 1);
    EXPECT_EQ(first.first().toStdU16String(), u"1;" + name);
    EXPECT_EQ(run(), first);
    EXPECT_EQ(stored(kInputNames).size(), 1);
}

TEST_F(PortTableTest, WhateverTheOrganizationIsCalledTheNextRunFindsItsPorts)
{
    setInputs({u"A"});
    const auto identifier = [](const char* organization, const char* application) {
        IMIDIPortAccessor* const accessor = MIDIPortAccessor(organization, application);
        const QUuid id = accessor->plugs(false).firstKey();
        accessor->Release();
        return id;
    };
    QSet<QString> seen;
    for (const char* const name : {"Back\\slash", "Sla/sh", "", "Back", "Sla"}) {
        SCOPED_TRACE(name);
        const QUuid id = identifier(name, kApplication);
        EXPECT_FALSE(id.isNull());
        EXPECT_EQ(identifier(name, kApplication), id);
        seen.insert(id.toString());
    }
    EXPECT_EQ(seen.size(), 5) << "each has a table of its own";
}

TEST_F(PortTableTest, WithoutMemoryTheAccessorHasThePortsThatItGotTo)
{
    setInputs({u"First", u"Second", u"Third"});
    sim::onCall("midiInGetDevCapsW", [](const sim::Call& call) {
        if (call.arguments[0] == 1)
            throw std::bad_alloc();
    });
    IMIDIPortAccessor* const accessor = MIDIPortAccessor(kOrganization, kApplication);
    EXPECT_EQ(accessor->plugs(false).values(), QStringList({"1;First"}));
    EXPECT_EQ(accessor->numberOfPlugs(true), 0);
    accessor->Release();
    EXPECT_EQ(stored(kInputNames), QStringList({"1;First"}));
}

} // namespace
