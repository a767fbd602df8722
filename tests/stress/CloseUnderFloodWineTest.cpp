// Inputs of the cable that never stop sending, opened and closed over and over through the DLL, for
// each kind of driver.

#include "tests/stress/FloodCycles.h"
#include "tests/stress/Watchdog.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"
#include "workbench/cable/Cable.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <psapi.h>
#include <string>
#include <tlhelp32.h>

/// The private state is all data, so that the test sees it without a symbol of the DLL.
struct lumora::TransportTestAccess
{
    static const TWinMIDIPrivate& device(const TMIDITransport& transport)
    {
        return *static_cast<const TWinMIDI&>(transport).d;
    }
};

namespace {

const int kCycles = floodCycles(200);

const char kCableDescription[] = "in \"Reset\" flood=100 dump=5000 repeat=0 wait=reset\n"
                                 "in \"Close\" flood=100 dump=5000 repeat=0 wait=close\n"
                                 "in \"None\" flood=100 dump=5000 repeat=0 wait=none\n"
                                 "in \"Windows11\" flood=100 dump=5000 repeat=0 driver=windows11\n";

constexpr int kWindows11 = 4; // the number of the input whose device can be lost

constexpr std::ptrdiff_t kDumpBytes = 5000;

/// Whether `length` bytes are the beginning of one of the cable's dumps.
bool beginsDump(const unsigned char* bytes, std::ptrdiff_t length)
{
    if (bytes[0] != 0xF0 || bytes[1] != 0x7D)
        return false;
    const std::ptrdiff_t number = bytes[2] - 2 + 128;
    for (std::ptrdiff_t k = 2; k < std::min(length, kDumpBytes - 1); ++k) {
        if (bytes[k] != (k + k / 128 + number) % 128)
            return false;
    }
    return length < kDumpBytes || bytes[kDumpBytes - 1] == 0xF7;
}

/// Notes and dumps arrive as the cable sends them; a dump may have the beginnings of dumps in front
/// that a close cut off at the end of a buffer.
class Checker : public TMIDIReaderRefConInterface
{
public:
    virtual ~Checker() = default;

    int read(int length, const void* data, bool, bool) override
    {
        const auto* bytes = static_cast<const unsigned char*>(data);
        ++messages;
        if (bytes[0] != 0xF0) {
            errors += length != 4 || bytes[0] < 0x90 || bytes[0] > 0x9F || bytes[3] != 0;
            return 0;
        }
        ++dumps;
        std::ptrdiff_t left = length;
        for (; left >= kDumpBytes + kBuffer && beginsDump(bytes, kBuffer); left -= kBuffer)
            bytes += kBuffer;
        errors += left != kDumpBytes || !beginsDump(bytes, kDumpBytes);
        return 0;
    }

    std::atomic<std::uint64_t> messages{0};
    std::atomic<std::uint64_t> dumps{0};
    std::atomic<std::uint64_t> errors{0};

private:
    static constexpr std::ptrdiff_t kBuffer = MIDIHeaderBlock::kBufferSize;
};

int headersBack(const TMIDITransport& transport)
{
    int back = 0;
    for (const MIDIHDR& header : lumora::TransportTestAccess::device(transport).inHeaders)
        back += (header.dwFlags & (MHDR_INQUEUE | MHDR_PREPARED)) == 0;
    return back;
}

struct Usage
{
    DWORD handles = 0;
    DWORD threads = 0;
    SIZE_T bytes = 0;
};

Usage usage()
{
    Usage now;
    GetProcessHandleCount(GetCurrentProcess(), &now.handles);
    PROCESS_MEMORY_COUNTERS memory = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
    now.bytes = memory.PagefileUsage;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 thread = {};
    thread.dwSize = sizeof thread;
    for (BOOL more = Thread32First(snapshot, &thread); more; more = Thread32Next(snapshot, &thread))
        now.threads += thread.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(snapshot);
    return now;
}

/// What is in use once the threads that were waited for have left the system.
Usage settledUsage(DWORD threads)
{
    Usage now = usage();
    for (int round = 0; round < 100 && now.threads > threads; ++round) {
        Sleep(50);
        now = usage();
    }
    return now;
}

void control(int command)
{
    ASSERT_TRUE(controlCable(command, true, kWindows11 - 1));
}

class CloseUnderFloodWineTest : public testing::TestWithParam<int>
{};

TEST_P(CloseUnderFloodWineTest, EveryCycleGetsAllBuffersBackAndNothingGrows)
{
    Watchdog watchdog(std::chrono::seconds(30));
    Checker checker;
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    ASSERT_TRUE(transport.valid());
    transport.registerMIDIobserver(&checker);
    Usage before;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        watchdog.alive();
        const std::uint64_t messages = checker.messages;
        ASSERT_NE(transport.openInput(GetParam()), nullptr) << "cycle " << cycle;
        // Every other close comes in the middle of the delivery, the rest into the opening.
        while (cycle % 2 == 0 && checker.messages < messages + 20)
            Sleep(1);
        ASSERT_EQ(transport.closeInput(), 0) << "cycle " << cycle;
        ASSERT_EQ(headersBack(transport), 768) << "cycle " << cycle;
        if (cycle == 20)
            before = settledUsage(3); // this thread, the watchdog and WinMM's own
    }
    const Usage after = settledUsage(before.threads);
    EXPECT_LE(after.handles, before.handles);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LT(after.bytes, before.bytes + 4'000'000);
    EXPECT_GT(checker.dumps, 0u);
    EXPECT_EQ(checker.errors, 0u);
    EXPECT_EQ(transport.Release(), 0u);
    std::printf("%d cycles, %llu messages\n", kCycles,
                static_cast<unsigned long long>(checker.messages));
}

TEST_P(CloseUnderFloodWineTest, AFreshTransportForEachCycleMeetsNoCallbackOfTheLast)
{
    Watchdog watchdog(std::chrono::seconds(30));
    Checker checker;
    Usage before;
    SIZE_T leftToDriver = 0;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        watchdog.alive();
        TMIDITransport& transport = MIDITransportInstance(nullptr);
        ASSERT_TRUE(transport.valid());
        transport.registerMIDIobserver(&checker);
        const std::uint64_t messages = checker.messages;
        ASSERT_NE(transport.openInput(GetParam()), nullptr) << "cycle " << cycle;
        while (cycle % 2 == 0 && checker.messages < messages + 20)
            Sleep(1);
        const bool isLost = GetParam() == kWindows11 && cycle % 50 == 49;
        if (isLost)
            control(LUMORA_CABLE_UNPLUG);
        ASSERT_EQ(transport.closeInput(), 0) << "cycle " << cycle;
        ASSERT_EQ(transport.Release(), 0u);
        if (isLost) {
            leftToDriver += kInputHeaders * (sizeof(MIDIHDR) + MIDIHeaderBlock::kBufferSize);
            control(LUMORA_CABLE_UNLOAD); // touches what it kept, and calls back
            control(LUMORA_CABLE_PLUG_IN);
        }
        if (cycle == 20)
            before = settledUsage(3); // this thread, the watchdog and WinMM's own
    }
    const Usage after = settledUsage(before.threads);
    EXPECT_LE(after.handles, before.handles);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LT(after.bytes, before.bytes + leftToDriver + 4'000'000);
    EXPECT_EQ(checker.errors, 0u);
}

std::string waitName(const testing::TestParamInfo<int>& port)
{
    static const char* const names[] = {"Reset", "Close", "None", "Windows11"};
    return names[port.param - 1];
}

INSTANTIATE_TEST_SUITE_P(Wait, CloseUnderFloodWineTest, testing::Values(1, 2, 3, 4), waitName);

} // namespace

int main(int argc, char** argv)
{
    // Read by the driver when the process first calls WinMM.
    _putenv_s("LUMORA_CABLE", kCableDescription);
    _putenv_s("LUMORA_CABLE_GROUP", "close-under-flood");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
