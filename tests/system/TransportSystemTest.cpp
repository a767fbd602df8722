#include "tests/system/SystemTest.h"

#include <objbase.h>

namespace {

using Clock = std::chrono::steady_clock;

class TransportSystemTest : public HostTest
{
protected:
    void open()
    {
        ASSERT_NE(transport->openInput(Cable::kPlainInput), nullptr);
        ASSERT_NE(transport->openOutput(Cable::kPlainOutput), nullptr);
    }

    bool send(const Bytes& bytes)
    {
        return transport->outputData(static_cast<int>(bytes.size()), bytes.data());
    }
};

/// Reads a port list as code without Qt would: plain memory and CoTaskMemFree.
struct PlainPort
{
    long long number;
    GUID id;
    std::wstring name;
};

std::vector<PlainPort> plainList(IMIDIPortAccessor* accessor, bool output)
{
    struct
    {
        unsigned int count;
        unsigned char* entries;
    } list = {0, nullptr};
    TMIDITransport::MIDIPorts(accessor, output, &list);
    std::vector<PlainPort> ports;
    for (unsigned int i = 0; i < list.count; ++i) {
        const unsigned char* const entry = list.entries + 32 * i;
        PlainPort port;
        wchar_t* name;
        memcpy(&port.number, entry, 8);
        memcpy(&port.id, entry + 8, 16);
        memcpy(&name, entry + 24, 8);
        port.name = name ? name : L"";
        CoTaskMemFree(name);
        ports.push_back(port);
    }
    CoTaskMemFree(list.entries);
    return ports;
}

TEST_F(TransportSystemTest, PortsAreListedThroughPlainMemoryInTheOrderOfTheirLabels)
{
    const std::vector<PlainPort> inputs = plainList(accessor, false);
    ASSERT_EQ(inputs.size(), 5u);
    const wchar_t* const names[] = {L"Plain", L"Left", L"Busy", L"Refusing", L""};
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(inputs[i].name, names[i]);
        EXPECT_EQ(inputs[i].number, i == 4 ? 0 : static_cast<long long>(i) + 1);
        EXPECT_EQ(QUuid(inputs[i].id), transport->getInpPortDescriptor(static_cast<int>(i) + 1));
    }
    const std::vector<PlainPort> outputs = plainList(accessor, true);
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[1].name, L"A name of thirty-one characters");
    EXPECT_EQ(transport->numberOfInputs(), 5);
    EXPECT_EQ(transport->numberOfOutputs(), 2);
}

TEST_F(TransportSystemTest, PortsAreFoundByNameAndIdentifier)
{
    const QUuid id = accessor->portIdentity("Busy", true);
    EXPECT_EQ(id, transport->getInpPortDescriptor(Cable::kBusyInput));
    EXPECT_EQ(accessor->portName(id), QString("3;Busy"));
    EXPECT_EQ(transport->friendlyName(id), QString("Busy"));
    EXPECT_EQ(transport->getInpDescriptorPort(id), int(Cable::kBusyInput));
    EXPECT_EQ(transport->getOutDescriptorPort(id), 0);
    EXPECT_TRUE(accessor->portIdentity("Left;Right", false).isNull());
    EXPECT_EQ(accessor->portName(QUuid()), QString("<unknown port name>"));
}

TEST_F(TransportSystemTest, ADumpOfTenThousandBytesComesBackWholeAfterItsPauses)
{
    open();
    const Bytes dump = sysEx(10000);
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(send(dump));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(200)); // two pauses
    ASSERT_TRUE(inbox.waitFor(1));
    EXPECT_EQ(inbox.messages()[0], dump);
}

TEST_F(TransportSystemTest, AShortMessageArrivesAsFourBytesOnATimeCriticalThread)
{
    int priority = 0;
    DWORD thread = 0;
    inbox.onRead = [&] {
        priority = GetThreadPriority(GetCurrentThread());
        thread = GetCurrentThreadId();
    };
    open();
    EXPECT_TRUE(send({0x90, 0x3C, 0x64}));
    ASSERT_TRUE(inbox.waitFor(1));
    EXPECT_EQ(inbox.messages()[0], Bytes({0x90, 0x3C, 0x64, 0x00}));
    EXPECT_EQ(priority, THREAD_PRIORITY_TIME_CRITICAL);
    EXPECT_NE(thread, GetCurrentThreadId());
}

TEST_F(TransportSystemTest, ManyMessagesKeepTheirOrder)
{
    open();
    std::vector<Bytes> expected;
    for (int i = 0; i < 500; ++i) {
        const unsigned char number = static_cast<unsigned char>(i % 128);
        if (i % 10 == 9) {
            expected.push_back(sysEx(std::size_t(20 + i)));
            EXPECT_TRUE(send(expected.back()));
        } else {
            EXPECT_TRUE(send({0xB0, 0x07, number}));
            expected.push_back({0xB0, 0x07, number, 0});
        }
    }
    ASSERT_TRUE(inbox.waitFor(expected.size()));
    EXPECT_EQ(inbox.messages(), expected);
}

TEST_F(TransportSystemTest, APortThatRefusesOrDoesNotExistGivesNull)
{
    EXPECT_EQ(transport->openInput(Cable::kRefusingInput), nullptr);
    EXPECT_EQ(transport->openInput(99), nullptr);
    EXPECT_EQ(transport->openInput(0), nullptr);
    EXPECT_EQ(transport->closeInput(), -1);
    EXPECT_EQ(transport->openOutput(99), nullptr);
    EXPECT_EQ(transport->closeOutput(), -1);
    EXPECT_FALSE(send({0x90, 1, 2}));
    EXPECT_NE(transport->openInput(Cable::kPlainInput), nullptr);
    EXPECT_EQ(transport->closeInput(), 0);
}

TEST_F(TransportSystemTest, AnInputOpensAndClosesAHundredTimesUnderAFlood)
{
    for (int round = 0; round < 100; ++round) {
        ASSERT_NE(transport->openInput(Cable::kBusyInput), nullptr) << round;
        ASSERT_EQ(transport->closeInput(), 0) << round;
    }
    const std::size_t received = inbox.messages().size();
    ASSERT_NE(transport->openInput(Cable::kBusyInput), nullptr);
    EXPECT_TRUE(inbox.waitFor(received + 100));
    EXPECT_EQ(transport->closeInput(), 0);
}

TEST_F(TransportSystemTest, TwoTransportsWorkSideBySide)
{
    TMIDITransport& other = MIDITransportInstance(accessor);
    ASSERT_TRUE(other.valid());
    EXPECT_NE(&other, transport);
    ASSERT_NE(transport->openInput(Cable::kPlainInput), nullptr);
    ASSERT_NE(other.openOutput(Cable::kLongNameOutput), nullptr);
    const Bytes dump = sysEx(5000);
    EXPECT_TRUE(other.outputData(static_cast<int>(dump.size()), dump.data()));
    ASSERT_TRUE(inbox.waitFor(1));
    EXPECT_EQ(inbox.messages()[0], dump);
    EXPECT_EQ(other.Release(), 0u);
}

TEST_F(TransportSystemTest, TheWakeUpEventIsFoundUnderItsName)
{
    // The number counts the transports of this process, so it is somewhere in the first hundred.
    bool found = false;
    for (int number = 1; number <= 100 && !found; ++number) {
        const QString name = QString("lumora.framework.transport - (%1) - ").arg(number);
        if (const HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, qUtf16Printable(name))) {
            CloseHandle(event);
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(TransportSystemTest, TerminateEndsDeliveryForGood)
{
    open();
    transport->terminate();
    EXPECT_TRUE(transport->valid());
    EXPECT_TRUE(send({0x90, 1, 2}));
    EXPECT_FALSE(inbox.waitFor(1, std::chrono::seconds(1)));
}

TEST_F(TransportSystemTest, ReleasingWithOpenPortsClosesThem)
{
    open();
    transport->AddRef();
    EXPECT_EQ(transport->Release(), 1u);
    TMIDITransport& next = MIDITransportInstance(accessor);
    transport->Release();
    transport = &next;
    transport->registerMIDIobserver(&inbox);
    open();
    EXPECT_TRUE(send({0x90, 1, 2}));
    EXPECT_TRUE(inbox.waitFor(1));
}

// Takes every free address below 4 GB, page by page, but for one gap, so that the heap must grow
// above it.
class LowMemory
{
public:
    LowMemory()
    {
        // Wine 8 would hand out a low one by itself, Wine 10 a high one.
        void* gap = nullptr;
        for (std::uintptr_t address = kUnit; !gap && address + kGap <= kLimit; address += kUnit)
            gap = VirtualAlloc(reinterpret_cast<void*>(address), kGap, MEM_RESERVE, PAGE_NOACCESS);
        for (std::size_t size = 0x40000000; size >= kUnit; size /= 2) {
            MEMORY_BASIC_INFORMATION region;
            for (std::uintptr_t address = kUnit; address + size <= kLimit;) {
                if (!VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region))
                    break;
                const std::uintptr_t end =
                    reinterpret_cast<std::uintptr_t>(region.BaseAddress) + region.RegionSize;
                if (region.State == MEM_FREE && address + size <= end) {
                    if (void* const taken = VirtualAlloc(reinterpret_cast<void*>(address), size,
                                                         MEM_RESERVE, PAGE_NOACCESS))
                        blocks.push_back(taken);
                    address += size;
                } else {
                    address = (end + kUnit - 1) / kUnit * kUnit;
                }
            }
        }
        // What the heap has left of its low pages.
        while (true) {
            void* const block = HeapAlloc(GetProcessHeap(), 0, 0x8000);
            heapBlocks.push_back(block);
            if (!block || reinterpret_cast<std::uintptr_t>(block) > kLimit)
                break;
        }
        // Not before: Wine 10's heap would take it.
        VirtualFree(gap, 0, MEM_RELEASE);
    }

    ~LowMemory()
    {
        for (void* const block : heapBlocks)
            HeapFree(GetProcessHeap(), 0, block);
        for (void* const block : blocks)
            VirtualFree(block, 0, MEM_RELEASE);
    }

private:
    static const std::uintptr_t kUnit = 0x10000;
    static const std::uintptr_t kLimit = std::uintptr_t(1) << 32;
    static const std::size_t kGap = 0x60000;

    std::vector<void*> blocks;
    std::vector<void*> heapBlocks;
};

TEST_F(TransportSystemTest, WithAHeapAboveFourGigabytesSysExArrivesAllTheSame)
{
    const LowMemory taken;
    void* const probe = HeapAlloc(GetProcessHeap(), 0, 86016);
    ASSERT_GT(reinterpret_cast<std::uintptr_t>(probe), std::uintptr_t(1) << 32)
        << "the heap still gives low addresses";
    HeapFree(GetProcessHeap(), 0, probe);

    TMIDITransport& high = MIDITransportInstance(accessor);
    ASSERT_TRUE(high.valid());
    Inbox highInbox;
    high.registerMIDIobserver(&highInbox);
    ASSERT_NE(high.openInput(Cable::kPlainInput), nullptr);
    ASSERT_NE(high.openOutput(Cable::kPlainOutput), nullptr);
    const Bytes dump = sysEx(10000);
    EXPECT_TRUE(high.outputData(static_cast<int>(dump.size()), dump.data()));
    EXPECT_TRUE(highInbox.waitFor(1));
    EXPECT_EQ(highInbox.messages().at(0), dump);
    EXPECT_EQ(high.Release(), 0u);
}

TEST(FactoryTest, TheNullReferenceOfAFailedFactoryIsNotValid)
{
    // The compiler must not see where the reference comes from, as a host's compiler does not.
    TMIDITransport* volatile none = nullptr;
    EXPECT_FALSE(none->valid());
}

} // namespace
