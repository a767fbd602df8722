#include "transport/MIDIPortList.h"

#include "tests/unit/OutOfMemory.h"
#include "tests/unit/TestSupport.h"
#include "tests/unit/ThrowingOLEString.h"

#include <cstring>
#include <new>
#include <objbase.h>
#include <set>

namespace {

/// A filled list, freed as its owner frees it.
struct OwnedList
{
    TMIDIPortList list = {};

    OwnedList(IMIDIPortAccessor* accessor, bool output)
    {
        TMIDITransport::MIDIPorts(accessor, output, &list);
    }
    ~OwnedList()
    {
        for (unsigned int i = 0; list.entries && i < list.count; ++i)
            CoTaskMemFree(list.entries[i].portName);
        CoTaskMemFree(list.entries);
    }

    QString name(int i) const
    {
        return QString::fromUtf16(reinterpret_cast<const char16_t*>(list.entries[i].portName));
    }
    QUuid id(int i) const
    {
        const GUID& guid = list.entries[i].portId;
        return QUuid(guid.Data1, guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                     guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6],
                     guid.Data4[7]);
    }
    long long number(int i) const { return list.entries[i].portNumber; }
};

class PortListTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        blocksBefore = sim::inUse().taskBlocks;
    }

    /// The placeholder name of every entry that is parsed is dropped, by design: there are
    /// `expected` of them. Frees what the library does not.
    void forgetPlaceholders(int expected)
    {
        EXPECT_EQ(sim::inUse().taskBlocks - blocksBefore, expected);
        std::set<std::uint64_t> blocks;
        for (const sim::Call& call : sim::calls()) {
            if (call.function == std::string("CoTaskMemAlloc"))
                blocks.insert(call.result);
            else if (call.function == std::string("CoTaskMemFree"))
                blocks.erase(call.handle);
        }
        for (const std::uint64_t block : blocks)
            CoTaskMemFree(reinterpret_cast<void*>(block));
    }

    int blocksBefore = 0;
};

TEST_F(PortListTest, TheRecordsAreLaidOutAsOtherBinariesReadThem)
{
    SCOPED_TRACE(
        "An editor that was compiled earlier reads numbers, identifiers and names from the "
        "wrong places, and frees what is no block.");
    accessor.maps[0].insert(uuid(1), "1;A");
    accessor.maps[0].insert(QUuid("{03020100-0504-0706-0809-0a0b0c0d0e0f}"), "258;B");
    alignas(8) unsigned char list[16] = {};
    TMIDITransport::MIDIPorts(&accessor, false, list);
    EXPECT_EQ(Bytes(list, list + 8), (Bytes{2, 0, 0, 0, 0, 0, 0, 0}));
    unsigned char* entries;
    std::memcpy(&entries, list + 8, 8);
    const unsigned char* const second = entries + 32;
    EXPECT_EQ(Bytes(second, second + 24), (Bytes{2, 1, 0, 0, 0, 0, 0,  0,  0,  1,  2,  3,
                                                 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
    for (const char letter : {'A', 'B'}) {
        char* name;
        std::memcpy(&name, entries + (letter == 'B' ? 56 : 24), 8);
        EXPECT_EQ(std::string(name, 4), std::string({letter, 0, 0, 0}));
        CoTaskMemFree(name);
    }
    CoTaskMemFree(entries);
    forgetPlaceholders(2);
}

TEST_F(PortListTest, AFilledListIsNotTouched)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    TMIDIPortEntry entry = {};
    TMIDIPortList list = {77, &entry};
    TMIDITransport::MIDIPorts(&accessor, false, &list);
    EXPECT_EQ(list.count, 77u);
    EXPECT_EQ(list.entries, &entry);
    EXPECT_EQ(accessor.numberOfPlugsCalls, 0);
}

TEST_F(PortListTest, WithoutAnAccessorTheListStaysAsItIs)
{
    TMIDIPortList list = {};
    TMIDITransport::MIDIPorts(nullptr, false, &list);
    EXPECT_EQ(list.count, 0u);
    EXPECT_EQ(list.entries, nullptr);
    list.count = 5;
    TMIDITransport::MIDIPorts(nullptr, false, &list);
    EXPECT_EQ(list.count, 5u);
}

TEST_F(PortListTest, ADirectionWithoutPortsNeedsNothingFreed)
{
    TMIDIPortList list = {5, nullptr};
    TMIDITransport::MIDIPorts(&accessor, true, &list);
    EXPECT_EQ(list.count, 0u);
    EXPECT_EQ(list.entries, nullptr);
    EXPECT_EQ(sim::inUse().taskBlocks, blocksBefore);
}

TEST_F(PortListTest, AsksTheAccessorOnceForTheCountAndOnceForTheMap)
{
    accessor.maps[1].insert(uuid(1), "1;A");
    {
        const OwnedList ports(&accessor, true);
    }
    EXPECT_EQ(accessor.numberOfPlugsCalls, 1);
    EXPECT_EQ(accessor.plugsCalls, 1);
    {
        const OwnedList noPorts(&accessor, false);
    }
    EXPECT_EQ(accessor.numberOfPlugsCalls, 2);
    EXPECT_EQ(accessor.plugsCalls, 2);
    forgetPlaceholders(1);
}

TEST_F(PortListTest, EachDirectionListsItsOwnPorts)
{
    accessor.maps[0].insert(uuid(1), "1;In");
    accessor.maps[1].insert(uuid(2), QString::fromUtf8("3;Out \u00e9\u4e16"));
    {
        const OwnedList inputs(&accessor, false);
        ASSERT_EQ(inputs.list.count, 1u);
        EXPECT_EQ(inputs.number(0), 1);
        EXPECT_EQ(inputs.name(0), QString("In"));
        EXPECT_EQ(inputs.id(0), uuid(1));
        const OwnedList outputs(&accessor, true);
        ASSERT_EQ(outputs.list.count, 1u);
        EXPECT_EQ(outputs.number(0), 3);
        EXPECT_EQ(outputs.name(0), QString::fromUtf8("Out \u00e9\u4e16"));
        EXPECT_EQ(outputs.id(0), uuid(2));
    }
    forgetPlaceholders(2);
}

TEST_F(PortListTest, PortsComeInTheTextualOrderOfTheirLabels)
{
    accessor.maps[0].insert(uuid(1), "2;A");
    accessor.maps[0].insert(uuid(2), "10;B");
    accessor.maps[0].insert(uuid(3), "1;b");
    accessor.maps[0].insert(uuid(4), "1;B");
    {
        const OwnedList ports(&accessor, false);
        ASSERT_EQ(ports.list.count, 4u);
        const int numbers[] = {10, 1, 1, 2};
        const char* const names[] = {"B", "B", "b", "A"};
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(ports.number(i), numbers[i]);
            EXPECT_EQ(ports.name(i), QString(names[i]));
        }
    }
    forgetPlaceholders(4);
}

TEST_F(PortListTest, EqualLabelsAreOrderedByTheirIdentifiersText)
{
    accessor.maps[0].insert(uuid(2), "1;A");
    accessor.maps[0].insert(uuid(1), "1;A");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.id(0), uuid(1));
        EXPECT_EQ(ports.id(1), uuid(2));
    }
    forgetPlaceholders(2);
}

TEST_F(PortListTest, ALabelIsOrderedWithWhatFollowsIt)
{
    // Behind the shorter label comes the separator, which is greater than a blank.
    accessor.maps[0].insert(uuid(1), "1;A");
    accessor.maps[0].insert(uuid(2), "1;A B");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.name(0), QString("A B"));
        EXPECT_EQ(ports.name(1), QString("A"));
    }
    forgetPlaceholders(2);
}

TEST_F(PortListTest, ALabelOfOnePieceKeepsItsIdentifierAndThePlaceholder)
{
    accessor.maps[0].insert(uuid(1), "3;");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.id(0), uuid(1));
        EXPECT_EQ(ports.number(0), 0);
        EXPECT_EQ(ports.name(0), QString());
    }
    EXPECT_EQ(sim::inUse().taskBlocks, blocksBefore);
}

TEST_F(PortListTest, AnEmptyLabelLeavesTheWholeEntryAtItsStartValues)
{
    accessor.maps[0].insert(uuid(1), QString());
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.id(0), QUuid());
        EXPECT_EQ(ports.number(0), 0);
        EXPECT_EQ(ports.name(0), QString());
    }
    EXPECT_EQ(sim::inUse().taskBlocks, blocksBefore);
}

TEST_F(PortListTest, ANameIsCutAtItsSemicolon)
{
    accessor.maps[0].insert(uuid(1), "1;Left;Right");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.name(0), QString("Left"));
    }
    forgetPlaceholders(1);
}

TEST_F(PortListTest, ANameWithTheIdentifierSeparatorLosesItsIdentifier)
{
    accessor.maps[0].insert(uuid(1), "1;Left<;>Right");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.id(0), QUuid());
        EXPECT_EQ(ports.name(0), QString("Left"));
        EXPECT_EQ(ports.number(0), 1);
    }
    forgetPlaceholders(1);
}

TEST_F(PortListTest, AFirstPieceThatIsNoNumberIsNumberZeroEverywhere)
{
    accessor.maps[0].insert(uuid(1), "x;Name");
    accessor.maps[1].insert(uuid(1), "x;Name");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.number(0), 0);
        EXPECT_EQ(ports.name(0), QString("Name"));
    }
    EXPECT_EQ(transport->getInpDescriptorPort(uuid(1)), 0);
    EXPECT_EQ(transport->getOutDescriptorPort(uuid(1)), 0);
    forgetPlaceholders(1);
}

TEST_F(PortListTest, ANegativeNumberIsWidenedWithItsSign)
{
    accessor.maps[0].insert(uuid(1), "-2;Name");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.number(0), -2);
    }
    forgetPlaceholders(1);
}

TEST_F(PortListTest, MorePortsThanCountedAreDropped)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    accessor.maps[0].insert(uuid(2), "2;B");
    accessor.countOverride = 1;
    {
        const OwnedList ports(&accessor, false);
        ASSERT_EQ(ports.list.count, 1u);
        EXPECT_EQ(ports.name(0), QString("A"));
    }
    forgetPlaceholders(1);
}

TEST_F(PortListTest, FewerPortsThanCountedLeaveTheLastEntriesUnwritten)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    accessor.countOverride = 2;
    TMIDIPortList list = {};
    TMIDITransport::MIDIPorts(&accessor, false, &list);
    ASSERT_EQ(list.count, 2u);
    const auto* const unwritten = reinterpret_cast<const unsigned char*>(&list.entries[1]);
    EXPECT_EQ(Bytes(unwritten, unwritten + 32), Bytes(32, sim::kMemoryFill));
    CoTaskMemFree(list.entries[0].portName);
    CoTaskMemFree(list.entries);
    forgetPlaceholders(1);
}

TEST_F(PortListTest, WithoutMemoryForTheTextsThereAreNoEntries)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    accessor.maps[0].insert(uuid(2), "2;B");
    int allocations = 0;
    sim::onCall("CoTaskMemAlloc", [&](const sim::Call&) {
        // The array, placeholder and name of the first port, placeholder of the second.
        if (++allocations == 5)
            throw std::bad_alloc();
    });
    TMIDIPortList list = {};
    EXPECT_NO_THROW(TMIDITransport::MIDIPorts(&accessor, false, &list));
    sim::clearHooks();
    EXPECT_EQ(allocations, 5);
    EXPECT_EQ(list.count, 2u);
    EXPECT_EQ(list.entries, nullptr);
    forgetPlaceholders(1);
}

TEST_F(PortListTest, AFailedAllocationKeepsTheCountAndNoEntries)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    sim::failCall("CoTaskMemAlloc");
    TMIDIPortList list = {};
    TMIDITransport::MIDIPorts(&accessor, false, &list);
    EXPECT_EQ(list.count, 1u);
    EXPECT_EQ(list.entries, nullptr);
    EXPECT_EQ(sim::inUse().taskBlocks, blocksBefore);
}

TEST_F(PortListTest, AFailedNameAllocationLeavesANullName)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    sim::failCall("CoTaskMemAlloc", 2, 0, sim::kAllFromThere);
    {
        const OwnedList ports(&accessor, false);
        ASSERT_NE(ports.list.entries, nullptr);
        EXPECT_EQ(ports.list.entries[0].portName, nullptr);
        EXPECT_EQ(ports.number(0), 1);
    }
    EXPECT_EQ(sim::inUse().taskBlocks, blocksBefore);
}

TEST_F(PortListTest, FriendlyNameOfAnUnknownPortIsItsIdentifiersText)
{
    EXPECT_EQ(transport->friendlyName(uuid(9)), uuid(9).toString());
    EXPECT_EQ(transport->friendlyName(QUuid()), QUuid().toString());
}

TEST_F(PortListTest, FriendlyNameStripsTheMarkersThatAListingKeeps)
{
    accessor.maps[1].insert(uuid(1), "2;Synth<[Out]>");
    accessor.maps[0].insert(uuid(2), "1;<[Inp]>A<[Out]>B<[Inp]>");
    accessor.maps[0].insert(uuid(3), "3;<[Inp]><[Out]>");
    accessor.maps[0].insert(uuid(4), "4;<[inp]>");
    accessor.maps[1].insert(uuid(5), "5;<[out]>");
    EXPECT_EQ(transport->friendlyName(uuid(1)), QString("Synth"));
    EXPECT_EQ(transport->friendlyName(uuid(2)), QString("AB"));
    EXPECT_EQ(transport->friendlyName(uuid(3)), uuid(3).toString());
    EXPECT_EQ(transport->friendlyName(uuid(4)), QString("<[inp]>"));
    EXPECT_EQ(transport->friendlyName(uuid(5)), QString("<[out]>"));
    {
        const OwnedList ports(&accessor, true);
        EXPECT_EQ(ports.name(0), QString("Synth<[Out]>"));
    }
    forgetPlaceholders(2);
}

TEST_F(PortListTest, FriendlyNameRemovesTheInputMarkerBeforeTheOutputMarker)
{
    accessor.maps[0].insert(uuid(1), "1;<[O<[Inp]>ut]>Name");
    EXPECT_EQ(transport->friendlyName(uuid(1)), QString("Name"));
}

TEST_F(PortListTest, FriendlyNamePrefersTheOutputMap)
{
    accessor.maps[0].insert(uuid(1), "1;Input");
    accessor.maps[1].insert(uuid(1), "1;Output");
    EXPECT_EQ(transport->friendlyName(uuid(1)), QString("Output"));
}

TEST_F(PortListTest, FriendlyNameOfAPortWithoutANameIsItsIdentifiersText)
{
    accessor.maps[1].insert(uuid(1), "3;");
    accessor.maps[0].insert(uuid(1), "3;Not this one");
    EXPECT_EQ(transport->friendlyName(uuid(1)), uuid(1).toString());
}

TEST_F(PortListTest, FriendlyNameIsCutAtASemicolon)
{
    accessor.maps[0].insert(uuid(1), "1;Left;Right");
    EXPECT_EQ(transport->friendlyName(uuid(1)), QString("Left"));
}

TEST_F(PortListTest, DescriptorLookupsSeeOnlyTheirOwnDirection)
{
    accessor.maps[0].insert(uuid(1), "4;In");
    accessor.maps[1].insert(uuid(2), "12;Out");
    EXPECT_EQ(transport->getInpDescriptorPort(uuid(1)), 4);
    EXPECT_EQ(transport->getOutDescriptorPort(uuid(1)), 0);
    EXPECT_EQ(transport->getOutDescriptorPort(uuid(2)), 12);
    EXPECT_EQ(transport->getInpDescriptorPort(uuid(2)), 0);
    EXPECT_EQ(transport->getInpDescriptorPort(QUuid()), 0);
}

TEST_F(PortListTest, TheDescriptorLookupOfAPortWithoutANameGivesItsNumber)
{
    accessor.maps[0].insert(uuid(1), "3;");
    EXPECT_EQ(transport->getInpDescriptorPort(uuid(1)), 3);
}

TEST_F(PortListTest, TheBytesBetweenCountAndEntriesAreTheCallers)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    alignas(8) unsigned char list[16];
    for (const bool output : {false, true}) { // with a port and without
        std::memset(list, 0xEE, 8);
        std::memset(list + 8, 0, 8);
        TMIDITransport::MIDIPorts(&accessor, output, list);
        EXPECT_EQ(Bytes(list, list + 8), (Bytes{static_cast<unsigned char>(output ? 0 : 1), 0, 0, 0,
                                                0xEE, 0xEE, 0xEE, 0xEE}));
        TMIDIPortList filled;
        std::memcpy(&filled, list, sizeof filled);
        if (filled.entries)
            CoTaskMemFree(filled.entries[0].portName);
        CoTaskMemFree(filled.entries);
    }
    forgetPlaceholders(1);
}

TEST_F(PortListTest, ANameWithHalvesOfSurrogatePairsIsListedAsItIs)
{
    const std::u16string name = {u'a', 0xD83C, u'b', 0xDFB9};
    accessor.maps[0].insert(uuid(1), QString::fromStdU16String(u"1;" + name));
    {
        const OwnedList ports(&accessor, false);
        const auto* const units = reinterpret_cast<const char16_t*>(ports.list.entries[0].portName);
        EXPECT_EQ(std::u16string(units, 5), name + u'\0');
    }
    EXPECT_EQ(transport->friendlyName(uuid(1)).toStdU16String(), name);
    forgetPlaceholders(1);
}

TEST_F(PortListTest, ALabelThatBeginsWithItsSemicolonHasNeitherNameNorNumber)
{
    accessor.maps[0].insert(uuid(1), ";Foo");
    {
        const OwnedList ports(&accessor, false);
        EXPECT_EQ(ports.id(0), uuid(1));
        EXPECT_EQ(ports.number(0), 0);
        EXPECT_EQ(ports.name(0), QString());
    }
    EXPECT_EQ(sim::inUse().taskBlocks, blocksBefore);
    EXPECT_EQ(transport->friendlyName(uuid(1)), uuid(1).toString());
    EXPECT_EQ(transport->getInpDescriptorPort(uuid(1)), 0);
}

TEST_F(PortListTest, EachTextOfAListCanThrowAndTheListIsThenEmpty)
{
    accessor.maps[false].insert(uuid(1), "1;First");
    accessor.maps[false].insert(uuid(2), "2;Second");
    // The placeholder and the name of each of the two.
    for (unsigned n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        sim::clearCalls();
        blocksBefore = sim::inUse().taskBlocks;
        TMIDIPortList list = {};
        {
            ThrowingOLEString shortage(n);
            TMIDITransport::MIDIPorts(&accessor, false, &list);
        }
        EXPECT_EQ(list.count, 2u);
        EXPECT_EQ(list.entries, nullptr);
        forgetPlaceholders(n > 2 ? 1 : 0);
    }
}

} // namespace
