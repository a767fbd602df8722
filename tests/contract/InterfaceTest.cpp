// The binary contract of lumora_transport.dll, on which editors compiled against an earlier version
// rely. Each failure says what breaks for whom.

#include "ports/MIDIPortAccessor.h"
#include "tests/contract/FrozenInterfaces.h"
#include "transport/MIDIPortList.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"

#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <objbase.h>
#include <type_traits>
#include <vector>

using lumora::TransportTestAccess;
using Bytes = std::vector<unsigned char>;

// --- Numbers ------------------------------------------------------------------------------------

static_assert(kInputHeaders == 768 && MIDIHeaderBlock::kBufferSize == 4096,
              "less room: dumps are lost that arrive while an editor's observer is busy");
static_assert(kOutputHeaders == 8, "fewer: an editor that sends many short messages has to wait");
static_assert(kQueueBytes == 524288, "smaller: short messages are lost that used to wait");
static_assert(kShortMessageRoom == 6160,
              "no longer the room for the notices of all input buffers: lost ones stall the input");
static_assert(sizeof(MIDIHDR) == 112, "WinMM refuses headers of another size");
static_assert(sizeof(InputRecord) == 8 && offsetof(InputRecord, message) == 0 &&
                  offsetof(InputRecord, param) == 4,
              "the queue and its reserve are counted in records of this layout");

/// Offsets within the objects, also of private members.
struct lumora::TransportTestAccess
{
    using InputCallback = decltype(&TWinMIDI::MidiInProc);
    using OutputCallback = decltype(&TWinMIDI::MidiOutProc);

    template <class Member>
    static std::ptrdiff_t offset(const TMIDITransport& object, const Member& member)
    {
        return reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&object);
    }
    static std::vector<std::ptrdiff_t> offsets(const TMIDITransport& transport)
    {
        return {offset(transport, transport.accessor),   offset(transport, transport.refCount),
                offset(transport, transport.terminated), offset(transport, transport.observerBlock),
                offset(transport, transport.pusher),     offset(transport, transport.dataEvent),
                offset(transport, transport.lock),       offset(transport, device(transport))};
    }
    static TWinMIDIPrivate* const& device(const TMIDITransport& transport)
    {
        return static_cast<const TWinMIDI&>(transport).d;
    }
};

static_assert(std::is_same_v<TransportTestAccess::InputCallback,
                             void(CALLBACK*)(HMIDIIN, UINT, DWORD_PTR, DWORD, DWORD)>,
              "not the exported symbol of the input callback, whose parameters are 32 bits wide");
static_assert(std::is_same_v<TransportTestAccess::OutputCallback,
                             void(CALLBACK*)(HMIDIOUT, UINT, DWORD_PTR, DWORD, DWORD)>,
              "not the exported symbol of the output callback, whose parameters are 32 bits wide");

namespace {

const char kOrganization[] = "Lumora Tests";
const char kApplication[] = "Interface";

/// The n-th transport of a process has event number n, so all are made here.
int transportsMade = 0;

TMIDITransport& makeTransport(IMIDIPortAccessor* accessor)
{
    ++transportsMade;
    return MIDITransportInstance(accessor);
}

/// The slot of a virtual function, from what a pointer to it holds by MinGW's C++ ABI.
template <class Function>
std::ptrdiff_t slotOf(Function function)
{
    std::ptrdiff_t content;
    memcpy(&content, &function, sizeof content);
    return (content - 1) / std::ptrdiff_t(sizeof(void*));
}

// Before anything is called: a wrong slot may well crash.
#define EXPECT_OLD_SLOT(now, old, function)                                                        \
    EXPECT_EQ(slotOf(&now::function), slotOf(&old::function)) << #function

/// An observer in an old host.
class OldObserver : public frozen::Reader
{
public:
    virtual ~OldObserver() = default;

    int read(int length, const void* data, bool strictStart, bool spare) override
    {
        const unsigned char* const bytes = static_cast<const unsigned char*>(data);
        const std::lock_guard<std::mutex> guard(mutex);
        received.assign(bytes, bytes + length);
        flags = strictStart && !spare;
        arrived.notify_all();
        return length;
    }

    bool waitFor(const Bytes& expected)
    {
        std::unique_lock<std::mutex> guard(mutex);
        return arrived.wait_for(guard, std::chrono::seconds(20),
                                [&] { return flags && received == expected; });
    }

    TMIDIReaderRefConInterface* asSeenByLibrary()
    {
        return reinterpret_cast<TMIDIReaderRefConInterface*>(static_cast<frozen::Reader*>(this));
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    Bytes received;
    bool flags = false;
};

/// An accessor in an old host.
class OldAccessor : public frozen::Accessor
{
public:
    virtual ~OldAccessor() = default;

    void Release() override {}
    QUuid portIdentity(const QString&, bool) const override { return QUuid(); }
    QString portName(const QUuid&) const override { return QString(); }
    int numberOfPlugs(bool output) const override { return output ? 1 : 0; }
    const QMap<QUuid, QString>& plugs(bool output) const override { return maps[output]; }

    QMap<QUuid, QString> maps[2];
};

/// Makes the hooks of a platform accessor visible.
struct Hooks : UniIMIDIPortAccessor
{
    using UniIMIDIPortAccessor::numberOfSystemPorts;
    using UniIMIDIPortAccessor::systemPortName;
};

/// What a host that is compiled today supplies as its proxy.
class NewProxy : public TMIDIProxyInOut
{
public:
    explicit NewProxy(int* slot) : slot(slot) {}
    ~NewProxy() override { *slot = -1; }

    int read(int length, const void*, bool, bool) override { return length; }
    void hostOperation1() override { *slot = 1; }
    void hostOperation2() override { *slot = 2; }
    void hostOperation3() override { *slot = 3; }
    void hostOperation4() override { *slot = 4; }
    void hostOperation5() override { *slot = 5; }

private:
    int* slot;
};

class InterfaceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        accessor = MIDIPortAccessor(kOrganization, kApplication);
        transport = &makeTransport(accessor);
        ASSERT_TRUE(transport->valid());
    }

    void TearDown() override
    {
        transport->Release();
        accessor->Release();
    }

    frozen::Transport& oldTransport() { return *reinterpret_cast<frozen::Transport*>(transport); }
    frozen::PlatformAccessor& oldAccessor()
    {
        return *reinterpret_cast<frozen::PlatformAccessor*>(accessor);
    }

    IMIDIPortAccessor* accessor = nullptr;
    TMIDITransport* transport = nullptr;
};

// --- Slots --------------------------------------------------------------------------------------

TEST_F(InterfaceTest, OldHostsReachTheNineDeviceOperationsThroughTheirSlots)
{
    SCOPED_TRACE("An editor that was compiled earlier now calls another operation than it means.");
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, numberOfInputs);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, numberOfOutputs);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, getInpPortDescriptor);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, getOutPortDescriptor);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, openInput);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, closeInput);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, openOutput);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, closeOutput);
    EXPECT_OLD_SLOT(TMIDITransport, frozen::Transport, outputData);
    ASSERT_FALSE(HasFailure());
    frozen::Transport& old = oldTransport();
    EXPECT_EQ(old.numberOfInputs(), 1);
    EXPECT_EQ(old.numberOfOutputs(), 2);
    EXPECT_EQ(old.getInpPortDescriptor(1), accessor->plugs(false).firstKey());
    EXPECT_TRUE(old.getInpPortDescriptor(2).isNull());
    EXPECT_EQ(accessor->plugs(true).value(old.getOutPortDescriptor(2)), QString("2;Two"));

    OldObserver observer;
    transport->registerMIDIobserver(observer.asSeenByLibrary());
    const unsigned char message[] = {0x90, 0x3C, 0x64};
    EXPECT_FALSE(old.outputData(sizeof message, message));
    ASSERT_NE(old.openInput(1), nullptr);
    EXPECT_FALSE(old.outputData(sizeof message, message));
    EXPECT_EQ(old.closeOutput(), -1);
    ASSERT_NE(old.openOutput(1), nullptr);
    EXPECT_TRUE(old.outputData(sizeof message, message));
    EXPECT_TRUE(observer.waitFor({0x90, 0x3C, 0x64, 0x00}));
    EXPECT_EQ(old.closeInput(), 0);
    EXPECT_EQ(old.closeInput(), -1);
    EXPECT_EQ(old.closeOutput(), 0);
}

TEST_F(InterfaceTest, OldHostsReachTheAccessorThroughItsSlots)
{
    SCOPED_TRACE("An editor that was compiled earlier now asks the accessor for something else.");
    EXPECT_OLD_SLOT(IMIDIPortAccessor, frozen::Accessor, Release);
    EXPECT_OLD_SLOT(IMIDIPortAccessor, frozen::Accessor, portIdentity);
    EXPECT_OLD_SLOT(IMIDIPortAccessor, frozen::Accessor, portName);
    EXPECT_OLD_SLOT(IMIDIPortAccessor, frozen::Accessor, numberOfPlugs);
    EXPECT_OLD_SLOT(IMIDIPortAccessor, frozen::Accessor, plugs);
    ASSERT_FALSE(HasFailure());
    frozen::PlatformAccessor& old = oldAccessor();
    const QUuid id = accessor->plugs(false).firstKey();
    EXPECT_EQ(old.portIdentity("One", false), id);
    EXPECT_EQ(old.portName(id), QString("1;One"));
    EXPECT_EQ(old.numberOfPlugs(false), 1);
    EXPECT_EQ(old.numberOfPlugs(true), 2);
    EXPECT_EQ(&old.plugs(true), &accessor->plugs(true));
}

TEST_F(InterfaceTest, PlatformSubclassesOfOldHostsFindTheirHooksInTheirSlots)
{
    SCOPED_TRACE("init() would call something else in a platform accessor compiled earlier.");
    EXPECT_OLD_SLOT(Hooks, frozen::PlatformAccessor, systemPortName);
    EXPECT_OLD_SLOT(Hooks, frozen::PlatformAccessor, numberOfSystemPorts);
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(oldAccessor().systemPortName(1, true), QString("Two"));
    EXPECT_EQ(oldAccessor().numberOfSystemPorts(true), 2);
    EXPECT_EQ(oldAccessor().numberOfSystemPorts(false), 1);
}

TEST_F(InterfaceTest, OldHostsReleaseTheAccessorThroughItsFirstSlot)
{
    SCOPED_TRACE("An editor that was compiled earlier no longer stores its new identifiers.");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"Software\\Lumora Tests\\Released");
    reinterpret_cast<frozen::Accessor*>(MIDIPortAccessor(kOrganization, "Released"))->Release();
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                            L"Software\\Lumora Tests\\Released\\preferences\\SystemPorts\\Input", 0,
                            KEY_READ, &key),
              ERROR_SUCCESS);
    RegCloseKey(key);
}

TEST_F(InterfaceTest, TheLibraryCallsOldObserversAndAccessors)
{
    SCOPED_TRACE("The library calls another function of an object that an old host supplies.");
    OldAccessor old;
    const QUuid id("{6b15a5ce-16e7-45d6-8ee7-b97ee86d91e5}");
    old.maps[true][id] = "7;Name";
    IMIDIPortAccessor* const supplied = reinterpret_cast<IMIDIPortAccessor*>(&old);
    TMIDIPortList list = {};
    TMIDITransport::MIDIPorts(supplied, true, &list);
    ASSERT_EQ(list.count, 1u);
    EXPECT_EQ(list.entries[0].portNumber, 7);
    EXPECT_EQ(QUuid(list.entries[0].portId), id);
    CoTaskMemFree(list.entries[0].portName);
    CoTaskMemFree(list.entries);

    OldObserver observer;
    frozen::Event event = {QByteArray("\xF0\x01\xF7", 3), 0};
    transport->registerMIDIobserver(observer.asSeenByLibrary());
    transport->doEvent(reinterpret_cast<TMIDIEvent&>(event));
    EXPECT_TRUE(observer.waitFor({0xF0, 0x01, 0xF7}));
}

TEST_F(InterfaceTest, TheProxysSlotsAreReadThenTheDestructorThenFiveOfTheHosts)
{
    SCOPED_TRACE(
        "Plug-in and editor, compiled at different times, disagree about TMIDIProxyInOut.");
    EXPECT_OLD_SLOT(TMIDIProxyInOut, frozen::Proxy, read);
    EXPECT_EQ(slotOf(&TMIDIProxyInOut::hostOperation1), slotOf(&frozen::Proxy::first));
    EXPECT_EQ(slotOf(&TMIDIProxyInOut::hostOperation5), slotOf(&frozen::Proxy::fifth));
    ASSERT_FALSE(HasFailure());
    int slot = 0;
    frozen::Proxy* const old = reinterpret_cast<frozen::Proxy*>(new NewProxy(&slot));
    EXPECT_EQ(old->read(5, nullptr, true, false), 5);
    old->first();
    EXPECT_EQ(slot, 1);
    old->second();
    EXPECT_EQ(slot, 2);
    old->third();
    EXPECT_EQ(slot, 3);
    old->fourth();
    EXPECT_EQ(slot, 4);
    old->fifth();
    EXPECT_EQ(slot, 5);
    delete old;
    EXPECT_EQ(slot, -1);
}

// --- Layouts ------------------------------------------------------------------------------------

TEST_F(InterfaceTest, SubclassesOfHostsFindTheMembersWhereTheyWere)
{
    SCOPED_TRACE("A subclass in a host, compiled earlier, reads and writes the wrong members.");
    EXPECT_EQ(sizeof(TSystemMIDIMap), sizeof(QMap<QUuid, QString>));
    ASSERT_EQ(sizeof(UniIMIDIPortAccessor), sizeof(frozen::PlatformAccessor));
    EXPECT_EQ(&accessor->plugs(false), &oldAccessor().plugMaps[0]);
    EXPECT_EQ(&accessor->plugs(true), &oldAccessor().plugMaps[1]);
    EXPECT_EQ(oldAccessor().organization, QString(kOrganization));
    EXPECT_EQ(oldAccessor().application, QString(kApplication));

    EXPECT_EQ(reinterpret_cast<char*>(static_cast<TMIDIReaderRefConInterface*>(transport)) -
                  reinterpret_cast<char*>(transport),
              16);
    const std::ptrdiff_t lock = 64;
    const std::ptrdiff_t end = lock + std::ptrdiff_t(sizeof(lumora::RecursiveMutex));
    EXPECT_EQ(TransportTestAccess::offsets(*transport),
              (std::vector<std::ptrdiff_t>{24, 32, 36, 40, 48, 56, lock, end}));
    EXPECT_EQ(sizeof(TMIDITransport), std::size_t(end));
    EXPECT_EQ(sizeof(TWinMIDI), std::size_t(end) + sizeof(void*));
    EXPECT_EQ(offsetof(TMIDIEvent, message), 0u);
}

// --- Names --------------------------------------------------------------------------------------

bool eventExists(int number)
{
    const QString name = QString("lumora.framework.transport - (%1) - ").arg(number);
    const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, qUtf16Printable(name));
    if (event)
        CloseHandle(event);
    return event != nullptr;
}

TEST_F(InterfaceTest, TheWakeUpEventHasTheNameThatOthersOpen)
{
    SCOPED_TRACE("A program that wakes the delivery of an editor by the event's name finds none.");
    EXPECT_TRUE(eventExists(transportsMade));
    EXPECT_FALSE(eventExists(transportsMade + 1));
    TMIDITransport& next = makeTransport(accessor);
    EXPECT_TRUE(eventExists(transportsMade));
    next.Release();
    EXPECT_FALSE(eventExists(transportsMade));
}

TEST_F(InterfaceTest, ThePortLabelAndTheUnknownPortAreTheTextsThatEditorsCompareWith)
{
    SCOPED_TRACE("Editors take labels apart at ';', and recognise the unknown port by its text.");
    EXPECT_EQ(accessor->plugs(false).first(), QString("1;One"));
    EXPECT_EQ(accessor->portName(QUuid()), QString("<unknown port name>"));
}

TEST_F(InterfaceTest, TheFileCarriesTheVersionOfTheProject)
{
    SCOPED_TRACE("An installer cannot tell an older DLL from a newer one.");
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(GetModuleHandleW(L"lumora_transport.dll"), path, MAX_PATH);
    DWORD ignored = 0;
    std::vector<char> data(GetFileVersionInfoSizeW(path, &ignored));
    ASSERT_FALSE(data.empty());
    ASSERT_TRUE(GetFileVersionInfoW(path, 0, DWORD(data.size()), data.data()));
    VS_FIXEDFILEINFO* info = nullptr;
    UINT size = 0;
    ASSERT_TRUE(VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&info), &size));
    EXPECT_EQ(info->dwFileVersionMS,
              DWORD(LUMORA_VERSION_MAJOR) << 16 | DWORD(LUMORA_VERSION_MINOR));
    EXPECT_EQ(info->dwFileVersionLS, DWORD(LUMORA_VERSION_PATCH) << 16);
    EXPECT_EQ(info->dwFileType, DWORD(VFT_DLL));
}

} // namespace

int main(int argc, char** argv)
{
    // The driver reads it when the process first calls WinMM.
    SetEnvironmentVariableW(L"LUMORA_CABLE", L"in \"One\"\nout \"One\"\nout \"Two\"\n");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
