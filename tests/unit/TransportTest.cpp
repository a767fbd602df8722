#include "tests/unit/OutOfMemory.h"
#include "tests/unit/TestSupport.h"
#include "tests/unit/ThrowingOLEString.h"

#include <cstdlib>

namespace {

/// A backend without a device.
class BareTransport : public TMIDITransport
{
public:
    explicit BareTransport(IMIDIPortAccessor* accessor = nullptr) : TMIDITransport(accessor) {}

    int numberOfInputs() const override { return 0; }
    int numberOfOutputs() const override { return 0; }
    QUuid getInpPortDescriptor(int) const override { return QUuid(); }
    QUuid getOutPortDescriptor(int) const override { return QUuid(); }
    void* openInput(int) override { return nullptr; }
    int closeInput() override { return -1; }
    void* openOutput(int) override { return nullptr; }
    int closeOutput() override { return -1; }
    bool outputData(int, const void*) override { return false; }

    bool* destroyed = nullptr;
    std::atomic<bool> drained{false};

protected:
    int read(int, const void*, bool, bool) override
    {
        drained = true;
        return 0;
    }

    ~BareTransport() override
    {
        if (destroyed)
            *destroyed = true;
    }
};

class TransportTest : public SimTest
{
protected:
    using Access = TransportTestAccess;
};

int numberIn(const std::u16string& eventName)
{
    const QString name = QString::fromStdU16String(eventName);
    const QString before = "lumora.framework.transport - (";
    EXPECT_TRUE(name.startsWith(before)) << name;
    EXPECT_TRUE(name.endsWith(") - ")) << name;
    return name.mid(before.size()).chopped(4).toInt();
}

TEST_F(TransportTest, EventsAreNamedByTheNumberOfTheTransport)
{
    TMIDITransport* const one = new BareTransport;
    TMIDITransport* const two = new BareTransport;
    const std::vector<std::u16string> names = sim::eventNames();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_GE(numberIn(names[0]), 1);
    EXPECT_EQ(numberIn(names[1]), numberIn(names[0]) + 1);
    one->Release();
    two->Release();

    // The number is never used again in this process.
    TMIDITransport* const three = new BareTransport;
    EXPECT_EQ(numberIn(sim::eventNames().at(0)), numberIn(names[0]) + 2);
    three->Release();
}

TEST_F(TransportTest, TheFirstTwoTransportsOfAProcessAreNumbersOneAndTwo)
{
    const auto firstTwoNumbers = [] {
        TMIDITransport* const one = new BareTransport;
        TMIDITransport* const two = new BareTransport;
        const std::vector<std::u16string> names = sim::eventNames();
        const bool right =
            names == std::vector<std::u16string>{u"lumora.framework.transport - (1) - ",
                                                 u"lumora.framework.transport - (2) - "};
        one->Release();
        two->Release();
        return right;
    };
    // In a process of its own, which has made no transport yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::_Exit(firstTwoNumbers() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(TransportTest, TheEventStartsSignalledAndResetsItself)
{
    TMIDITransport* const transport = new BareTransport;
    const HANDLE event = Access::dataEvent(*transport);
    ASSERT_NE(event, nullptr);
    EXPECT_TRUE(sim::isSignalled(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD(WAIT_OBJECT_0));
    EXPECT_FALSE(sim::isSignalled(event));
    transport->Release();
}

TEST_F(TransportTest, ConstructionCreatesTheEventAndFreesItsName)
{
    sim::clearCalls();
    TMIDITransport* const transport = new BareTransport;
    EXPECT_EQ(sim::callNames(), (std::vector<std::string>{"CoTaskMemAlloc", "CreateEventW",
                                                          "GetLastError", "CoTaskMemFree"}));
    EXPECT_EQ(sim::inUse().taskBlocks, 0);
    transport->Release();
}

TEST_F(TransportTest, AFailedEventLeavesATransportWithoutOne)
{
    sim::failCall("CreateEventW");
    TMIDITransport* const transport = new BareTransport;
    EXPECT_EQ(Access::dataEvent(*transport), nullptr);
    EXPECT_TRUE(transport->valid());
    EXPECT_EQ(transport->Release(), 0u);
}

TEST_F(TransportTest, AnEventOfTheSameNameIsShared)
{
    TMIDITransport* const probe = new BareTransport;
    const int number = numberIn(sim::eventNames().at(0));
    probe->Release();
    const QString next = QString("lumora.framework.transport - (%1) - ").arg(number + 1);
    const HANDLE other =
        CreateEventW(nullptr, FALSE, FALSE, reinterpret_cast<const WCHAR*>(next.utf16()));
    TMIDITransport* const transport = new BareTransport;
    ASSERT_NE(Access::dataEvent(*transport), nullptr);
    SetEvent(Access::dataEvent(*transport));
    EXPECT_EQ(WaitForSingleObject(other, 0), DWORD(WAIT_OBJECT_0));
    CloseHandle(other);
    transport->Release();
}

TEST_F(TransportTest, ReferencesAreCountedAndTheLastOneDestroys)
{
    bool destroyed = false;
    BareTransport* const transport = new BareTransport;
    transport->destroyed = &destroyed;
    EXPECT_EQ(transport->AddRef(), 2u);
    EXPECT_EQ(transport->Release(), 1u);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(transport->Release(), 0u);
    EXPECT_TRUE(destroyed);
}

TEST_F(TransportTest, DestructionWithoutInputSignalsAndClosesTheEventWithoutWaiting)
{
    TMIDITransport* const transport = new BareTransport;
    sim::clearCalls();
    transport->Release();
    EXPECT_EQ(sim::callNames(), (std::vector<std::string>{"SetEvent", "CloseHandle"}));
}

TEST_F(TransportTest, DestructionStopsAPusherThatStillRuns)
{
    BareTransport* const transport = new BareTransport;
    Access::start(*transport);
    // Past its first drain the thread sleeps until the destructor wakes it.
    while (!transport->drained)
        std::this_thread::yield();
    EXPECT_EQ(transport->Release(), 0u);
}

TEST_F(TransportTest, ATerminatedTransportIsStillValid)
{
    TMIDITransport* const transport = new BareTransport;
    EXPECT_TRUE(transport->valid());
    transport->terminate();
    EXPECT_TRUE(transport->valid());
    transport->Release();
}

TEST_F(TransportTest, IsAQObjectWithoutAMetaObjectOfItsOwn)
{
    TMIDITransport* const transport = new BareTransport;
    EXPECT_STREQ(transport->metaObject()->className(), "QObject");
    EXPECT_EQ(transport->parent(), nullptr);
    transport->Release();
}

TEST_F(TransportTest, EveryAllocationOfTheConstructorCanFailAndNothingLeaks)
{
    const QObject
        firstOfTheThread; // for which Qt itself needs memory, and does not ask whether it has it
    int objects = 0;
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE(n);
        TMIDITransport* transport = nullptr;
        bool met = false;
        {
            OutOfMemory shortage(n);
            try {
                transport = new TWinMIDI(nullptr);
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(objects, 0) << "caught in the constructor, once there is an object";
            }
            met = OutOfMemory::met();
        }
        if (transport) {
            ++objects;
            const unsigned char note[] = {0x90, 1, 2};
            if (!Access::hasDevice(*transport)) {
                EXPECT_EQ(transport->openInput(1), nullptr);
                EXPECT_EQ(transport->openInput(0), nullptr);
                EXPECT_EQ(transport->closeInput(), -1);
                EXPECT_EQ(transport->openOutput(1), nullptr);
                EXPECT_EQ(transport->openOutput(0), nullptr);
                EXPECT_EQ(transport->closeOutput(), -1);
            }
            EXPECT_FALSE(transport->outputData(3, note));
            EXPECT_EQ(transport->Release(), 0u);
        }
        EXPECT_EQ(sim::inUse(), sim::Resources());
        if (!met)
            break;
    }
    EXPECT_GT(objects, 2);
}

TEST_F(TransportTest, WithoutMemoryForItsNameATransportHasNoEvent)
{
    ThrowingOLEString shortage(1);
    TMIDITransport* const transport = new BareTransport;
    EXPECT_EQ(Access::dataEvent(*transport), nullptr);
    transport->Release();
}

TEST_F(TransportTest, TheFactoryMakesANewTransportOnEveryCall)
{
    TMIDITransport& one = MIDITransportInstance(nullptr);
    TMIDITransport& two = MIDITransportInstance(nullptr);
    EXPECT_TRUE(one.valid());
    EXPECT_TRUE(two.valid());
    EXPECT_NE(&one, &two);
    EXPECT_EQ(sim::eventNames().size(), 2u);
    EXPECT_EQ(one.Release(), 0u);
    EXPECT_EQ(two.Release(), 0u);
}

// A null reference is what the factory promises here, so the sanitizer is not asked about it.
__attribute__((no_sanitize("null", "undefined"))) bool factoryMakesOneWithoutMemory()
{
    OutOfMemory shortage;
    return MIDITransportInstance(nullptr).valid();
}

TEST_F(TransportTest, WithoutMemoryTheFactoryReturnsAReferenceThatIsNotValid)
{
    EXPECT_FALSE(factoryMakesOneWithoutMemory());
}

} // namespace
