// Devices that are pulled out, below the DLL on WinMM. Windows 11's driver keeps an input's buffers
// then, and touches them once more when it is unloaded.

#include "tests/stress/Watchdog.h"
#include "tests/system/ChildRun.h"
#include "tests/system/SystemTest.h"
#include "winmidi/WinMIDIPrivate.h"
#include "workbench/cable/Cable.h"

#include <algorithm>
#include <atomic>
#include <cstring>

/// The private state is all data, so that the test sees it without a symbol of the DLL.
struct lumora::TransportTestAccess
{
    static const TWinMIDIPrivate& device(const TMIDITransport& transport)
    {
        return *static_cast<const TWinMIDI&>(transport).d;
    }
};

namespace {

using Clock = std::chrono::steady_clock;

// Half of what a wait for buffers that never come back takes, and enough for a busy machine.
constexpr std::chrono::milliseconds kWithoutWaiting(500);

const char kPorts[] = "in \"A\" driver=windows11\n"
                      "in \"B\" driver=windows11\n"
                      "out \"A\" driver=windows11\n"
                      "out \"B\" driver=windows11\n";

/// Does `command` to the device below port `port`, once some port has been open.
void control(int command, bool input, unsigned port)
{
    ASSERT_TRUE(controlCable(command, input, port - 1));
}

bool send(TMIDITransport& transport, const Bytes& bytes)
{
    return transport.outputData(static_cast<int>(bytes.size()), bytes.data());
}

/// Takes the memory that was freed before, so that whoever still writes to it or reads it meets
/// this.
class FreedMemory
{
public:
    FreedMemory()
    {
        for (std::size_t size = 16; size <= 20'000; size += size < 1024 ? 16 : 512)
            blocks.resize(blocks.size() + 10, Bytes(size, kFill));
        for (const SIZE_T size : {sizeof(MIDIHDR), SIZE_T(MIDIHeaderBlock::kBufferSize)}) {
            for (int i = 0; i < 4; ++i) {
                void* const block = HeapAlloc(GetProcessHeap(), 0, kInputHeaders * size);
                std::memset(block, kFill, kInputHeaders * size);
                heapBlocks.push_back({static_cast<unsigned char*>(block), kInputHeaders * size});
            }
        }
    }
    ~FreedMemory()
    {
        for (const auto& block : heapBlocks)
            HeapFree(GetProcessHeap(), 0, block.first);
    }

    bool isUntouched() const
    {
        const auto isFill = [](unsigned char byte) { return byte == kFill; };
        return std::all_of(blocks.begin(), blocks.end(),
                           [&](const Bytes& block) {
                               return std::all_of(block.begin(), block.end(), isFill);
                           }) &&
               std::all_of(heapBlocks.begin(), heapBlocks.end(), [&](const auto& block) {
                   return std::all_of(block.first, block.first + block.second, isFill);
               });
    }

private:
    static constexpr unsigned char kFill = 0xDD;

    std::vector<Bytes> blocks;
    std::vector<std::pair<unsigned char*, std::size_t>> heapBlocks;
};

/// The library as a host has it that loads and unloads it: a copy of the file, which this program
/// is not linked to.
class LoadedLibrary
{
public:
    LoadedLibrary()
    {
        wchar_t original[MAX_PATH];
        GetModuleFileNameW(GetModuleHandleW(L"lumora_transport.dll"), original, MAX_PATH);
        wchar_t folder[MAX_PATH];
        GetTempPathW(MAX_PATH, folder);
        path = folder + std::wstring(L"lumora-copy-") + std::to_wstring(GetCurrentProcessId()) +
               L".dll";
        EXPECT_TRUE(CopyFileW(original, path.c_str(), FALSE));
        module = LoadLibraryW(path.c_str());
        EXPECT_NE(module, nullptr);
    }
    ~LoadedLibrary() { DeleteFileW(path.c_str()); }

    template <class Function>
    Function function(const char* name) const
    {
        const FARPROC address = GetProcAddress(module, name);
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<Function>(reinterpret_cast<void*>(address));
    }

    TMIDITransport& makeTransport() const
    {
        return function<TMIDITransport& (*)(IMIDIPortAccessor*)>(
            "_Z21MIDITransportInstanceP17IMIDIPortAccessor")(nullptr);
    }

    void release(TMIDITransport& transport) const
    {
        EXPECT_EQ(function<unsigned int (*)(TMIDITransport*)>("_ZN14TMIDITransport7ReleaseEv")(
                      &transport),
                  0u);
    }

    /// Frees it; whether it is loaded all the same.
    bool isLoadedWhenFreed() const
    {
        EXPECT_TRUE(FreeLibrary(module));
        return GetModuleHandleW(path.c_str()) != nullptr;
    }

private:
    std::wstring path;
    HMODULE module = nullptr;
};

/// Has the device of input 1 receive the beginning of a SysEx message and pulls it out. The driver
/// calls back for it when it is unloaded. The headers are told by the first one.
const MIDIHDR* loseInput(TMIDITransport& transport)
{
    EXPECT_NE(transport.openInput(1), nullptr);
    EXPECT_NE(transport.openOutput(1), nullptr);
    const MIDIHDR* const first = lumora::TransportTestAccess::device(transport).inHeaders.begin();
    EXPECT_TRUE(send(transport, {0xF0, 1, 2}));
    while (first->lpData[2] != 2)
        Sleep(1);
    control(LUMORA_CABLE_UNPLUG, true, 1);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(transport.closeInput(), 0);
    EXPECT_LT(Clock::now() - start, kWithoutWaiting);
    return first;
}

void unloadDriverOfInput1(const MIDIHDR* first)
{
    EXPECT_TRUE(first->dwFlags & MHDR_INQUEUE);
    control(LUMORA_CABLE_UNLOAD, true, 1);
    EXPECT_TRUE(first->dwFlags & MHDR_DONE) << "the driver was to touch it";
    EXPECT_EQ(first->dwBytesRecorded, 3u);
}

void expectRoundTrip(TMIDITransport& transport, Inbox& inbox, int port)
{
    const std::size_t before = inbox.messages().size();
    ASSERT_NE(transport.openInput(port), nullptr);
    ASSERT_NE(transport.openOutput(port), nullptr);
    const Bytes dump = sysEx(5000);
    EXPECT_TRUE(send(transport, dump));
    EXPECT_TRUE(send(transport, {0x90, 1, 2}));
    ASSERT_TRUE(inbox.waitFor(before + 2));
    EXPECT_EQ(inbox.messages()[before], dump);
    EXPECT_EQ(inbox.messages()[before + 1], Bytes({0x90, 1, 2, 0}));
    EXPECT_EQ(transport.closeOutput(), 0);
    EXPECT_EQ(transport.closeInput(), 0);
}

TEST(LostDeviceSystemTest, TheDriverTouchesAndCallsBackForALostInputAfterTheLastRelease)
{
    if (ranWithCable(kPorts))
        return;
    const Watchdog watchdog(std::chrono::seconds(30));
    Inbox inbox;
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    transport.registerMIDIobserver(&inbox);
    const MIDIHDR* const first = loseInput(transport);
    EXPECT_EQ(transport.Release(), 0u);
    const FreedMemory freed;
    unloadDriverOfInput1(first);
    EXPECT_TRUE(freed.isUntouched());
    EXPECT_TRUE(inbox.messages().empty());
}

TEST(LostDeviceSystemTest, TheLibraryStaysLoadedForTheDriverOfALostInput)
{
    if (ranWithCable(kPorts))
        return;
    const Watchdog watchdog(std::chrono::seconds(30));
    {
        const LoadedLibrary library;
        TMIDITransport& transport = library.makeTransport();
        EXPECT_NE(transport.openInput(2), nullptr);
        EXPECT_EQ(transport.closeInput(), 0);
        library.release(transport);
        EXPECT_FALSE(library.isLoadedWhenFreed()) << "nothing was lost";
    }
    const LoadedLibrary library;
    TMIDITransport& transport = library.makeTransport();
    const MIDIHDR* const first = loseInput(transport);
    library.release(transport);
    EXPECT_TRUE(library.isLoadedWhenFreed());
    const FreedMemory freed;
    unloadDriverOfInput1(first);
    EXPECT_TRUE(freed.isUntouched());
}

TEST(LostDeviceSystemTest, AfterALossOtherPortsWorkAndTheSameOnePluggedInAgain)
{
    if (ranWithCable(kPorts))
        return;
    const Watchdog watchdog(std::chrono::seconds(30));
    Inbox inbox;
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    transport.registerMIDIobserver(&inbox);
    const MIDIHDR* const first = loseInput(transport);
    control(LUMORA_CABLE_UNPLUG, false, 1);
    EXPECT_FALSE(send(transport, {0x90, 1, 2}));
    EXPECT_EQ(transport.closeOutput(), 0);
    EXPECT_EQ(transport.openInput(1), nullptr);
    EXPECT_EQ(transport.openOutput(1), nullptr);

    expectRoundTrip(transport, inbox, 2);
    control(LUMORA_CABLE_PLUG_IN, true, 1);
    control(LUMORA_CABLE_PLUG_IN, false, 1);
    expectRoundTrip(transport, inbox, 1);
    EXPECT_EQ(transport.Release(), 0u);

    Inbox laterInbox;
    TMIDITransport& later = MIDITransportInstance(nullptr);
    later.registerMIDIobserver(&laterInbox);
    expectRoundTrip(later, laterInbox, 2);
    expectRoundTrip(later, laterInbox, 1);
    unloadDriverOfInput1(first);
    expectRoundTrip(later, laterInbox, 2);
    EXPECT_EQ(later.Release(), 0u);
    EXPECT_EQ(inbox.messages().size(), 4u);
    EXPECT_EQ(laterInbox.messages().size(), 6u);
}

/// An observer sends a dump to output 2, which `lose` makes unable to take it; then the host closes
/// the input.
template <class Lose>
void closeInputBelowASendingObserver(const Lose& lose)
{
    const Watchdog watchdog(std::chrono::seconds(30));
    Inbox inbox;
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    transport.registerMIDIobserver(&inbox);
    std::atomic<bool> sent{true};
    std::atomic<bool> hasReturned{false};
    inbox.onRead = [&] {
        sent = send(transport, Bytes(5000, 0x11));
        hasReturned = true;
    };
    ASSERT_NE(transport.openInput(1), nullptr);
    // The message for the observer comes by another transport.
    TMIDITransport& other = MIDITransportInstance(nullptr);
    ASSERT_NE(other.openOutput(1), nullptr);
    ASSERT_NE(transport.openOutput(2), nullptr);
    const MIDIHDR* const chunk = lumora::TransportTestAccess::device(transport).outHeaders.begin();
    const auto takeChunk = [&] {
        EXPECT_TRUE(send(other, {0x90, 1, 2}));
        while (!(*static_cast<const volatile DWORD*>(&chunk->dwFlags) & MHDR_PREPARED))
            Sleep(1);
    };
    lose(takeChunk);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(transport.closeInput(), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_TRUE(hasReturned);
    EXPECT_FALSE(sent);
    EXPECT_EQ(transport.Release(), 0u);
    EXPECT_EQ(other.Release(), 0u);
}

/// A note that the driver still has when output `port` is closed. Returns how long closing takes;
/// `kept` tells whether the headers stay the driver's.
std::chrono::milliseconds closeBehindAChunk(TMIDITransport& transport, int port, bool& kept)
{
    EXPECT_NE(transport.openOutput(port), nullptr);
    const TWinMIDIPrivate& device = lumora::TransportTestAccess::device(transport);
    const MIDIHDR* const first = device.outHeaders.begin();
    EXPECT_TRUE(send(transport, {0x90, 1, 2}));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(transport.closeOutput(), 0);
    const auto closing =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    EXPECT_EQ(transport.closeOutput(), -1);
    kept = (first->dwFlags & MHDR_INQUEUE) != 0;
    EXPECT_EQ(device.outHeaders.begin() != first, kept) << "what the driver has is not used again";
    return closing;
}

TEST(LostDeviceSystemTest, AnOutputWaitsForTheChunkThatItsResetDidNotFinish)
{
    // At one byte per second the note plays until it is reset.
    if (ranWithCable("out \"1\" pace=1 late=1\n"
                     "out \"5\" pace=1 late=5\n"
                     "out \"20\" pace=1 late=20"))
        return;
    const Watchdog watchdog(std::chrono::seconds(30));
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    for (int round = 0; round < 10; ++round) {
        for (const int port : {1, 2, 3}) {
            bool kept = true;
            EXPECT_LT(closeBehindAChunk(transport, port, kept), kWithoutWaiting);
            EXPECT_FALSE(kept) << "the close was refused";
        }
    }
    EXPECT_EQ(transport.Release(), 0u);
}

TEST(LostDeviceSystemTest, AnOutputThatPlaysForEverIsGivenUpInTimeAndKeepsItsHeaders)
{
    if (ranWithCable("out \"Busy\" pace=1 late=3600000\nout \"Other\""))
        return;
    const Watchdog watchdog(std::chrono::seconds(30));
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    for (int round = 0; round < 2; ++round) { // the cable lets a lost port be opened again
        bool kept = false;
        const std::chrono::milliseconds closing = closeBehindAChunk(transport, 1, kept);
        EXPECT_GE(closing, std::chrono::milliseconds(450));
        EXPECT_LT(closing, std::chrono::seconds(2));
        EXPECT_TRUE(kept);
    }
    ASSERT_NE(transport.openOutput(2), nullptr);
    EXPECT_TRUE(send(transport, Bytes(5000, 0x11)));
    EXPECT_EQ(transport.closeOutput(), 0);
    EXPECT_EQ(transport.Release(), 0u);
}

TEST(LostDeviceSystemTest, AnObserversDumpThatNeverEndsDoesNotKeepTheInputFromClosing)
{
    // A chunk would take more than an hour.
    if (ranWithCable("in \"A\"\nout \"A\"\nout \"B\" pace=1"))
        return;
    closeInputBelowASendingObserver([](const auto& takeChunk) {
        takeChunk();
        control(LUMORA_CABLE_UNPLUG, false, 2);
    });
}

TEST(LostDeviceSystemTest, AnObserversDumpToALostDeviceDoesNotKeepTheInputFromClosing)
{
    // A piece of 2,048 bytes takes half a second; the one behind it finds no device.
    if (ranWithCable("in \"A\" driver=windows11\n"
                     "out \"A\" driver=windows11\n"
                     "out \"B\" driver=windows11 pace=4096 timeout=500"))
        return;
    closeInputBelowASendingObserver([](const auto& takeChunk) {
        takeChunk();
        control(LUMORA_CABLE_UNPLUG, false, 2); // behind the chunk
    });
}

TEST(LostDeviceSystemTest, AnObserversDumpToAStalledDriverEndsWithTheDriversTimeOut)
{
    if (ranWithCable("in \"A\" driver=windows11\n"
                     "out \"A\" driver=windows11\n"
                     "out \"B\" driver=windows11 timeout=1000"))
        return;
    closeInputBelowASendingObserver([](const auto& takeChunk) {
        control(LUMORA_CABLE_STALL, false, 2);
        takeChunk();
    });
}

} // namespace
