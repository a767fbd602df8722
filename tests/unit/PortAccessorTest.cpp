#include "ports/PortLabel.h"
#include "tests/unit/TestSupport.h"

namespace {

const bool kInput = false;
const bool kOutput = true;

/// The Windows accessor, with its device queries opened up and no store behind it.
class OpenWinAccessor : public WinIMIDIPortAccessor
{
public:
    OpenWinAccessor() : WinIMIDIPortAccessor("NoSuchOrganization", "NoSuchApplication") {}
    ~OpenWinAccessor() override = default;
    using WinIMIDIPortAccessor::numberOfSystemPorts;
    using WinIMIDIPortAccessor::systemPortName;
};

class PortAccessorTest : public SimTest
{
protected:
    QUuid identityAt(int number, bool output)
    {
        const TSystemMIDIMap& map = accessor.plugs(output);
        for (auto port = map.begin(); port != map.end(); ++port) {
            if (PortLabel(port.value()).number() == number)
                return port.key();
        }
        return QUuid();
    }

    OpenWinAccessor accessor;
};

TEST(PortLabelTest, IsTheOneBasedNumberASemicolonAndTheName)
{
    EXPECT_EQ(PortLabel::compose(0, "USB MIDI"), QString("1;USB MIDI"));
    EXPECT_EQ(PortLabel::compose(11, "%1 %2"), QString("12;%1 %2"));
    EXPECT_EQ(PortLabel::compose(2, QString()), QString("3;"));
}

TEST(PortLabelTest, IsTakenApartAtItsSemicolonsWithEmptyPiecesDropped)
{
    const PortLabel label(QString("10;A;B"));
    EXPECT_EQ(label.number(), 10);
    EXPECT_TRUE(label.hasName());
    EXPECT_EQ(label.name(), QString("A"));

    EXPECT_FALSE(PortLabel(QString("3;")).hasName());
    EXPECT_TRUE(PortLabel(QString("3;")).name().isNull());
    EXPECT_EQ(PortLabel(QString(";;4;;Name")).number(), 4);
    EXPECT_EQ(PortLabel(QString(";;4;;Name")).name(), QString("Name"));
}

TEST(PortLabelTest, WithoutANumberInFrontItIsNumberZero)
{
    EXPECT_EQ(PortLabel(QString("x;Name")).number(), 0);
    EXPECT_EQ(PortLabel(QString()).number(), 0);
    EXPECT_EQ(PortLabel(QString(";")).number(), 0);
}

TEST_F(PortAccessorTest, DevicesAreCountedAndNamedByTheSystem)
{
    sim::addInput(u"USB MIDI");
    sim::addOutput(u"Synth \u00e9\u4e16");
    sim::addOutput(u"1234567890123456789012345678901");
    EXPECT_EQ(accessor.numberOfSystemPorts(kInput), 1);
    EXPECT_EQ(accessor.numberOfSystemPorts(kOutput), 2);
    EXPECT_EQ(accessor.systemPortName(0, kInput), QString("USB MIDI"));
    EXPECT_EQ(accessor.systemPortName(0, kOutput), QString::fromUtf8("Synth \u00e9\u4e16"));
    EXPECT_EQ(accessor.systemPortName(1, kOutput), QString("1234567890123456789012345678901"));
}

TEST_F(PortAccessorTest, ADeviceThatTheSystemCannotNameHasAnEmptyName)
{
    sim::DeviceOptions broken;
    broken.capsResult = MMSYSERR_NODRIVER;
    sim::addInput(u"Broken", broken);
    EXPECT_TRUE(accessor.systemPortName(0, kInput).isEmpty());
    EXPECT_TRUE(accessor.systemPortName(7, kOutput).isEmpty());

    accessor.init();
    EXPECT_EQ(accessor.plugs(kInput).first(), QString("1;"));
}

TEST_F(PortAccessorTest, ANameThatFillsItsFieldNeedsNoTerminator)
{
    const std::u16string name = u"12345678901234567890123456789012";
    sim::addInput(name);
    sim::addOutput(name);
    EXPECT_EQ(accessor.systemPortName(0, kInput), QString("12345678901234567890123456789012"));
    EXPECT_EQ(accessor.systemPortName(0, kOutput), QString("12345678901234567890123456789012"));
}

TEST_F(PortAccessorTest, ADriverThatFillsNothingGivesAnEmptyName)
{
    sim::addInput(u"In");
    sim::addOutput(u"Out");
    sim::failCall("midiInGetDevCapsW", 1, MMSYSERR_NOERROR);
    sim::failCall("midiOutGetDevCapsW", 1, MMSYSERR_NOERROR);
    EXPECT_EQ(accessor.systemPortName(0, kInput), QString());
    EXPECT_EQ(accessor.systemPortName(0, kOutput), QString());
}

TEST_F(PortAccessorTest, TheSystemIsToldTheSizesOfItsRecords)
{
    sim::addInput(u"In");
    sim::addOutput(u"Out");
    accessor.systemPortName(0, kInput);
    accessor.systemPortName(0, kOutput);
    EXPECT_EQ(sim::calls("midiInGetDevCapsW").at(0).arguments[1], 76u);
    EXPECT_EQ(sim::calls("midiOutGetDevCapsW").at(0).arguments[1], 84u);
}

TEST_F(PortAccessorTest, WithoutDevicesThereIsNothingToKnow)
{
    accessor.init();
    EXPECT_EQ(accessor.numberOfPlugs(kInput), 0);
    EXPECT_EQ(accessor.numberOfPlugs(kOutput), 0);
    EXPECT_TRUE(accessor.portIdentity("USB MIDI", kInput).isNull());
    EXPECT_EQ(accessor.portName(QUuid()), QString("<unknown port name>"));
}

TEST_F(PortAccessorTest, EveryDevicePresentGetsALabelUnderAnIdentifierOfItsOwn)
{
    sim::addInput(u"Twin");
    sim::addInput(u"Twin");
    sim::addOutput(u"Twin");
    accessor.init();
    EXPECT_EQ(accessor.numberOfPlugs(kInput), 2);
    EXPECT_EQ(accessor.numberOfPlugs(kOutput), 1);
    EXPECT_EQ(accessor.portName(identityAt(1, kInput)), QString("1;Twin"));
    EXPECT_EQ(accessor.portName(identityAt(2, kInput)), QString("2;Twin"));
    EXPECT_NE(identityAt(1, kInput), identityAt(1, kOutput));
    EXPECT_FALSE(identityAt(1, kInput).isNull());
}

TEST_F(PortAccessorTest, PortIdentityIgnoresTheDirectionAndTriesInputsFirst)
{
    sim::addInput(u"USB MIDI");
    sim::addOutput(u"USB MIDI");
    sim::addOutput(u"Only out");
    accessor.init();
    EXPECT_EQ(accessor.portIdentity("USB MIDI", kOutput), identityAt(1, kInput));
    EXPECT_EQ(accessor.portIdentity("USB MIDI", kInput), identityAt(1, kInput));
    EXPECT_EQ(accessor.portIdentity("Only out", kInput), identityAt(2, kOutput));
}

TEST_F(PortAccessorTest, PortIdentityComparesExactly)
{
    sim::addInput(u"USB MIDI");
    accessor.init();
    EXPECT_TRUE(accessor.portIdentity("usb midi", kInput).isNull());
    EXPECT_TRUE(accessor.portIdentity("USB MIDI ", kInput).isNull());
    EXPECT_TRUE(accessor.portIdentity("USB", kInput).isNull());
}

TEST_F(PortAccessorTest, ANameWithASemicolonIsNeverFound)
{
    sim::addInput(u"Left;Right");
    accessor.init();
    EXPECT_TRUE(accessor.portIdentity("Left;Right", kInput).isNull());
    EXPECT_EQ(accessor.portIdentity("Left", kInput), identityAt(1, kInput));
}

TEST_F(PortAccessorTest, ADeviceWithoutANameMatchesNoName)
{
    sim::addInput(u"");
    accessor.init();
    EXPECT_TRUE(accessor.portIdentity(QString(), kInput).isNull());
    EXPECT_TRUE(accessor.portIdentity("", kOutput).isNull());
    EXPECT_TRUE(accessor.portIdentity("1", kOutput).isNull());
}

TEST_F(PortAccessorTest, ALookupNeverMakesAnIdentifier)
{
    accessor.init();
    sim::addInput(u"Late");
    EXPECT_TRUE(accessor.portIdentity("Late", kInput).isNull());
    EXPECT_EQ(accessor.numberOfPlugs(kInput), 0);
}

TEST_F(PortAccessorTest, CopiesShareNothingButTheirValues)
{
    sim::addInput(u"USB MIDI");
    accessor.init();
    const OpenWinAccessor copy(accessor);
    OpenWinAccessor assigned;
    EXPECT_EQ(&(assigned = accessor), &assigned);
    EXPECT_EQ(copy.plugs(kInput), accessor.plugs(kInput));
    EXPECT_EQ(assigned.plugs(kInput), accessor.plugs(kInput));
    EXPECT_NE(&copy.plugs(kInput), &accessor.plugs(kInput));
}

TEST_F(PortAccessorTest, NumberOfPlugsFollowsAnOverriddenPlugs)
{
    class Doubled : public OpenWinAccessor
    {
    public:
        const TSystemMIDIMap& plugs(bool) const override { return map; }
        TSystemMIDIMap map;
    } doubled;
    doubled.map.insert(uuid(1), "1;A");
    doubled.map.insert(uuid(2), "2;B");
    EXPECT_EQ(doubled.numberOfPlugs(kInput), 2);
}

TEST_F(PortAccessorTest, PortNameIsTheLabelOfThePortOfEitherDirection)
{
    sim::addInput(u"In");
    sim::addOutput(u"Out");
    accessor.init();
    EXPECT_EQ(accessor.portName(identityAt(1, kInput)), QString("1;In"));
    EXPECT_EQ(accessor.portName(identityAt(1, kOutput)), QString("1;Out"));
    EXPECT_EQ(accessor.portName(uuid(9)), QString("<unknown port name>"));
}

TEST_F(PortAccessorTest, ADeviceWhoseNameBeginsWithASemicolonIsFoundByWhatFollows)
{
    sim::addInput(u";Foo");
    accessor.init();
    EXPECT_EQ(accessor.plugs(kInput).first(), QString("1;;Foo"));
    EXPECT_TRUE(accessor.portIdentity(";Foo", kInput).isNull());
    EXPECT_EQ(accessor.portIdentity("Foo", kInput), accessor.plugs(kInput).firstKey());
}

TEST_F(PortAccessorTest, ALabelWithoutANumberMatchesNoName)
{
    // No table and no device makes such a label.
    const_cast<TSystemMIDIMap&>(accessor.plugs(kInput)).insert(uuid(1), ";Foo");
    EXPECT_TRUE(accessor.portIdentity("Foo", kInput).isNull());
    EXPECT_TRUE(accessor.portIdentity(";Foo", kInput).isNull());
    EXPECT_TRUE(accessor.portIdentity("", kInput).isNull());
}

} // namespace
