// The simulated Windows against what Windows promises, and its script against what Sim.h promises.
#include "Sim.h"
#include "objbase.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using Bytes = std::vector<unsigned char>;
using Names = std::vector<std::string>;

constexpr UINT kHeaderSize = sizeof(MIDIHDR);

struct SimTest : testing::Test
{
    SimTest() { sim::reset(); }
    ~SimTest() override { sim::reset(); }
};

std::uintptr_t addressOf(const void* pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

// ---- Events -------------------------------------------------------------------------------------

struct Events : SimTest
{};

TEST_F(Events, AutoResetEventReleasesOneWaitPerSignal)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(sim::isSignalled(event));
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 1), WAIT_TIMEOUT);
}

TEST_F(Events, ManualResetEventStaysSignalledUntilReset)
{
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    SetEvent(event);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST_F(Events, SameNameOpensTheSameEventUntilItsLastHandleCloses)
{
    const HANDLE first = CreateEventW(nullptr, FALSE, FALSE, u"shared");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const HANDLE second = CreateEventW(nullptr, FALSE, TRUE, u"shared");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    const HANDLE other = CreateEventW(nullptr, FALSE, FALSE, u"Shared");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_NE(first, second);
    EXPECT_EQ(sim::eventNames(), (std::vector<std::u16string>{u"shared", u"Shared"}));

    SetEvent(first);
    EXPECT_EQ(WaitForSingleObject(other, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);

    CloseHandle(first);
    SetEvent(second);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    CloseHandle(second);
    CreateEventW(nullptr, FALSE, FALSE, u"shared");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
}

TEST_F(Events, NullAndClosedHandlesAreRefusedEverywhere)
{
    const HANDLE closed = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(closed));
    const HANDLE open = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_NE(open, closed);
    const HANDLE never = reinterpret_cast<HANDLE>(0x7FFFFFF0);
    for (const HANDLE handle : {HANDLE(nullptr), closed, never}) {
        EXPECT_EQ(WaitForSingleObject(handle, INFINITE), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(WaitForMultipleObjects(1, &handle, TRUE, INFINITE), WAIT_FAILED);
        const HANDLE pair[] = {open, handle};
        EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, INFINITE), WAIT_FAILED);
        EXPECT_FALSE(SetEvent(handle));
        EXPECT_FALSE(ResetEvent(handle));
        EXPECT_FALSE(CloseHandle(handle));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    EXPECT_TRUE(sim::isSignalled(open));
    EXPECT_EQ(sim::inUse().handles, 1);
}

TEST_F(Events, WaitForAllTakesAllSignalsOrNone)
{
    const HANDLE events[] = {CreateEventW(nullptr, FALSE, TRUE, nullptr),
                             CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    EXPECT_EQ(WaitForMultipleObjects(2, events, TRUE, 1), WAIT_TIMEOUT);
    EXPECT_TRUE(sim::isSignalled(events[0]));
    std::thread setter([&] { SetEvent(events[1]); });
    EXPECT_EQ(WaitForMultipleObjects(2, events, TRUE, INFINITE), WAIT_OBJECT_0);
    setter.join();
    EXPECT_FALSE(sim::isSignalled(events[0]));
    EXPECT_FALSE(sim::isSignalled(events[1]));
}

TEST_F(Events, WaitForAnyTakesOneSignalAndNamesIt)
{
    const HANDLE events[] = {CreateEventW(nullptr, FALSE, FALSE, nullptr),
                             CreateEventW(nullptr, FALSE, TRUE, nullptr),
                             CreateEventW(nullptr, FALSE, TRUE, nullptr)};
    EXPECT_EQ(WaitForMultipleObjects(3, events, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForMultipleObjects(3, events, FALSE, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(WaitForMultipleObjects(3, events, FALSE, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForMultipleObjects(0, events, FALSE, 0), WAIT_FAILED);
}

TEST_F(Events, SignalsCrossThreadsWithTheDataWrittenBeforeThem)
{
    const HANDLE ping = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const HANDLE pong = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    constexpr int kRounds = 2000;
    int shared = 0; // plain: ordered by the events alone
    std::thread other([&] {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(WaitForSingleObject(ping, INFINITE), WAIT_OBJECT_0);
            ++shared;
            SetEvent(pong);
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ++shared;
        SetEvent(ping);
        ASSERT_EQ(WaitForMultipleObjects(1, &pong, TRUE, INFINITE), WAIT_OBJECT_0);
        ASSERT_EQ(shared, 2 * (i + 1));
    }
    other.join();
}

TEST_F(Events, EverySignalOfAnAutoResetEventReleasesOneOfSeveralWaiters)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            WaitForSingleObject(event, INFINITE);
            ++released;
        });
    for (int i = 1; i <= 3; ++i) {
        SetEvent(event);
        while (released < i)
            std::this_thread::yield();
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_FALSE(sim::isSignalled(event));
}

// ---- Time ---------------------------------------------------------------------------------------

struct Time : SimTest
{};

TEST_F(Time, VirtualTimeMovesOnlyBySleep)
{
    sim::useVirtualTime(500);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(timeGetTime(), 500u);
    for (int i = 0; i < 6000; ++i)
        Sleep(100);
    EXPECT_EQ(timeGetTime(), 600500u);
    Sleep(0);
    EXPECT_EQ(timeGetTime(), 600500u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST_F(Time, VirtualTimeWrapsAround)
{
    sim::useVirtualTime();
    sim::setTime(0xFFFFFFFF - 9);
    Sleep(30);
    EXPECT_EQ(timeGetTime(), 20u);
    sim::advanceTime(5);
    EXPECT_EQ(timeGetTime(), 25u);
}

TEST_F(Time, SleepErrorMakesSleepReturnEarlyOrLateButNeverAtOnce)
{
    sim::useVirtualTime(0);
    sim::setSleepError(-3);
    Sleep(100);
    EXPECT_EQ(timeGetTime(), 97u);
    Sleep(3);
    EXPECT_EQ(timeGetTime(), 98u);
    sim::setSleepError(5);
    Sleep(100);
    EXPECT_EQ(timeGetTime(), 203u);
}

TEST_F(Time, SleepHookSeesEverySleepBeforeTheTimePasses)
{
    sim::useVirtualTime(10);
    std::vector<DWORD> seen;
    sim::onSleep([&](DWORD milliseconds) {
        seen.push_back(milliseconds);
        seen.push_back(timeGetTime());
    });
    Sleep(7);
    Sleep(0);
    EXPECT_EQ(seen, (std::vector<DWORD>{7, 10, 0, 17}));
    sim::onSleep(nullptr);
    Sleep(1);
    EXPECT_EQ(seen.size(), 4u);
}

TEST_F(Time, RealTimeAgreesWithTheClock)
{
    const DWORD begin = timeGetTime();
    Sleep(20);
    const DWORD passed = timeGetTime() - begin;
    EXPECT_GE(passed, 19u);
    EXPECT_LT(passed, 20000u);
}

// ---- Memory -------------------------------------------------------------------------------------

struct Memory : SimTest
{};

TEST_F(Memory, HeapLiesBelowFourGigabytesAndIsZeroedOnRequest)
{
    for (const SIZE_T size :
         {SIZE_T(86016), SIZE_T(3145728), SIZE_T(896), SIZE_T(32768), SIZE_T(1)}) {
        auto* const zeroed =
            static_cast<unsigned char*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size));
        auto* const filled = static_cast<unsigned char*>(HeapAlloc(GetProcessHeap(), 0, size));
        ASSERT_TRUE(zeroed && filled);
        EXPECT_LT(addressOf(zeroed) + size, std::uintptr_t(1) << 32);
        EXPECT_EQ(addressOf(zeroed) % 16, 0u);
        EXPECT_EQ(std::count(zeroed, zeroed + size, 0), static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(std::count(filled, filled + size, 0xA5), static_cast<std::ptrdiff_t>(size));
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, zeroed));
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, filled));
    }
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, nullptr));
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(Memory, HeapCanLieHigh)
{
    sim::setHeapHigh(true);
    void* const block = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 86016);
    EXPECT_GE(addressOf(block), std::uintptr_t(1) << 32);
    EXPECT_EQ(sim::inUse().heapBlocks, 1);
    HeapFree(GetProcessHeap(), 0, block);
}

using MemoryDeathTest = Memory;

TEST_F(MemoryDeathTest, AccessPastOrBeforeOrAfterTheLifeOfAHeapBlockStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto* const block = static_cast<volatile unsigned char*>(HeapAlloc(GetProcessHeap(), 0, 86016));
    EXPECT_DEATH(block[86016] = 1, "");
    EXPECT_DEATH(block[-1] = 1, "");
    EXPECT_DEATH(
        {
            HeapFree(GetProcessHeap(), 0, const_cast<unsigned char*>(block));
            block[0] = 1;
        },
        "");
    EXPECT_DEATH(HeapFree(GetProcessHeap(), 0, const_cast<unsigned char*>(block) + 16),
                 "not a live heap block");
}

// The way to low memory when the heap does not give it.
void* allocateLow(SIZE_T size)
{
    MEMORY_BASIC_INFORMATION region;
    for (std::uintptr_t address = 0x10000; address < std::uintptr_t(1) << 32;
         address = addressOf(region.BaseAddress) + region.RegionSize) {
        if (VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region) == 0)
            return nullptr;
        const std::uintptr_t begin =
            (addressOf(region.BaseAddress) + 0xFFFF) & ~std::uintptr_t(0xFFFF);
        const std::uintptr_t end = addressOf(region.BaseAddress) + region.RegionSize;
        if (region.State != MEM_FREE || begin + size > end ||
            begin + size > std::uintptr_t(1) << 32)
            continue;
        if (void* const memory = VirtualAlloc(reinterpret_cast<void*>(begin), size,
                                              MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))
            return memory;
    }
    return nullptr;
}

TEST_F(Memory, VirtualQueryAndVirtualAllocFindLowMemory)
{
    void* const first = allocateLow(86016);
    void* const second = allocateLow(896);
    ASSERT_TRUE(first && second);
    EXPECT_LT(addressOf(first), std::uintptr_t(1) << 32);
    EXPECT_EQ(addressOf(first) % 65536, 0u);
    EXPECT_EQ(addressOf(second) % 65536, 0u);
    std::memset(first, 1, 86016);
    std::memset(second, 2, 896);
    EXPECT_EQ(static_cast<unsigned char*>(first)[86015], 1);

    MEMORY_BASIC_INFORMATION region;
    ASSERT_EQ(VirtualQuery(first, &region, sizeof region), sizeof region);
    EXPECT_EQ(region.State, MEM_COMMIT);
    EXPECT_EQ(region.BaseAddress, first);
    EXPECT_EQ(VirtualAlloc(first, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE), nullptr);

    EXPECT_EQ(sim::inUse().virtualBlocks, 2);
    EXPECT_FALSE(VirtualFree(first, 86016, MEM_RELEASE));
    EXPECT_TRUE(VirtualFree(first, 0, MEM_RELEASE));
    EXPECT_FALSE(VirtualFree(first, 0, MEM_RELEASE));
    EXPECT_TRUE(VirtualFree(second, 0, MEM_RELEASE));
    ASSERT_EQ(VirtualQuery(first, &region, sizeof region), sizeof region);
    EXPECT_EQ(region.State, MEM_FREE);
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(Memory, VirtualAllocRoundsTheAddressDownToTheGranularity)
{
    void* const place = allocateLow(0x20000);
    ASSERT_TRUE(place);
    VirtualFree(place, 0, MEM_RELEASE);
    void* const memory = VirtualAlloc(static_cast<char*>(place) + 0x3456, 0x100,
                                      MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    EXPECT_EQ(memory, place);
    std::memset(memory, 1, 0x3556);
    EXPECT_TRUE(VirtualFree(memory, 0, MEM_RELEASE));
}

TEST_F(Memory, VirtualAllocWithoutAnAddressTakesAnyAlignedPlace)
{
    void* const memory = VirtualAlloc(nullptr, 100000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    ASSERT_TRUE(memory);
    EXPECT_EQ(addressOf(memory) % 65536, 0u);
    std::memset(memory, 1, 100000);
    EXPECT_TRUE(VirtualFree(memory, 0, MEM_RELEASE));
}

TEST_F(Memory, OccupiedLowRangeGivesNoLowMemory)
{
    sim::setLowRangeOccupied(true);
    EXPECT_EQ(allocateLow(896), nullptr);
    MEMORY_BASIC_INFORMATION region;
    ASSERT_EQ(VirtualQuery(reinterpret_cast<void*>(0x50000000), &region, sizeof region),
              sizeof region);
    EXPECT_NE(region.State, MEM_FREE);
    EXPECT_EQ(addressOf(region.BaseAddress) + region.RegionSize, std::uintptr_t(1) << 32);
    EXPECT_EQ(VirtualAlloc(reinterpret_cast<void*>(0x50000000), 4096, MEM_RESERVE | MEM_COMMIT,
                           PAGE_READWRITE),
              nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
}

TEST_F(Memory, SystemInfoNamesPageGranularityAndLimits)
{
    SYSTEM_INFO information;
    GetSystemInfo(&information);
    EXPECT_EQ(information.dwPageSize, 4096u);
    EXPECT_EQ(information.dwAllocationGranularity, 65536u);
    EXPECT_EQ(addressOf(information.lpMinimumApplicationAddress), 0x10000u);
}

TEST_F(Memory, TaskMemoryIsCounted)
{
    void* const memory = CoTaskMemAlloc(64);
    ASSERT_TRUE(memory);
    EXPECT_EQ(sim::inUse().taskBlocks, 1);
    CoTaskMemFree(memory);
    CoTaskMemFree(nullptr);
    EXPECT_EQ(sim::inUse().taskBlocks, 0);
}

TEST_F(Memory, GuidsAreRandomVersionFour)
{
    GUID a{};
    GUID b{};
    EXPECT_EQ(CoCreateGuid(&a), S_OK);
    EXPECT_EQ(CoCreateGuid(&b), S_OK);
    EXPECT_NE(std::memcmp(&a, &b, sizeof a), 0);
    EXPECT_EQ(a.Data3 >> 12, 4);
    EXPECT_EQ(a.Data4[0] >> 6, 2);
}

// ---- Failures, counters, hooks and the log ------------------------------------------------------

struct Script : SimTest
{};

TEST_F(Script, OnlyTheCallsOrderedToFailFail)
{
    sim::failCall("CreateEventW", 2);
    sim::failCall("CoTaskMemAlloc", 1, ERROR_NOT_ENOUGH_MEMORY, 2);
    EXPECT_TRUE(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    EXPECT_FALSE(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_TRUE(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    EXPECT_FALSE(CoTaskMemAlloc(8));
    EXPECT_FALSE(CoTaskMemAlloc(8));
    void* const memory = CoTaskMemAlloc(8);
    EXPECT_TRUE(memory);
    CoTaskMemFree(memory);
    EXPECT_EQ(sim::callCount("CreateEventW"), 3u);
}

TEST_F(Script, FailuresCountFromTheOrderAndCanBeEndless)
{
    CoTaskMemFree(CoTaskMemAlloc(8));
    sim::failCall("CoTaskMemAlloc", 2, ERROR_NOT_ENOUGH_MEMORY, sim::kAllFromThere);
    CoTaskMemFree(CoTaskMemAlloc(8));
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(CoTaskMemAlloc(8));
    sim::clearFailures();
    void* const memory = CoTaskMemAlloc(8);
    EXPECT_TRUE(memory);
    CoTaskMemFree(memory);
}

TEST_F(Script, EachKindOfFunctionFailsInItsOwnWay)
{
    for (const char* name : {"HeapAlloc", "VirtualAlloc", "SetEvent", "CoCreateGuid",
                             "WaitForSingleObject", "midiInOpen", "midiInGetNumDevs"})
        sim::failCall(name);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    GUID guid;
    HMIDIIN handle = nullptr;
    EXPECT_FALSE(HeapAlloc(GetProcessHeap(), 0, 8));
    EXPECT_FALSE(VirtualAlloc(nullptr, 8, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    EXPECT_FALSE(SetEvent(event));
    EXPECT_FALSE(sim::isSignalled(event));
    EXPECT_TRUE(FAILED(CoCreateGuid(&guid)));
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_FAILED);
    EXPECT_EQ(midiInOpen(&handle, 0, 0, 0, CALLBACK_NULL), MMSYSERR_ERROR);
    EXPECT_EQ(midiInGetNumDevs(), 0u);
}

TEST_F(Script, LogHoldsCallsInOrderWithArgumentsAndResults)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    WaitForSingleObject(event, 7);
    std::thread other([&] { SetEvent(event); });
    other.join();
    EXPECT_EQ(sim::callNames(), (Names{"CreateEventW", "WaitForSingleObject", "SetEvent"}));
    const std::vector<sim::Call> calls = sim::calls();
    EXPECT_EQ(calls[0].arguments[0], 0u);
    EXPECT_EQ(calls[0].arguments[1], 1u);
    EXPECT_EQ(calls[0].result, addressOf(event));
    EXPECT_EQ(calls[1].handle, addressOf(event));
    EXPECT_EQ(calls[1].arguments[0], 7u);
    EXPECT_TRUE(calls[1].returned);
    EXPECT_EQ(calls[1].thread, sim::currentThread());
    EXPECT_NE(calls[2].thread, sim::currentThread());
    EXPECT_EQ(sim::calls("SetEvent").size(), 1u);

    sim::logCalls(false);
    SetEvent(event);
    sim::logCalls(true);
    EXPECT_EQ(sim::calls("SetEvent").size(), 1u);
    EXPECT_EQ(sim::callCount("SetEvent"), 2u);
    sim::clearCalls();
    EXPECT_TRUE(sim::calls().empty());
    ResetEvent(event);
    EXPECT_EQ(sim::callNames(), Names{"ResetEvent"});
}

TEST_F(Script, ABlockedCallIsInTheLogBeforeItReturnsAndSurvivesClearing)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::thread waiter([&] { WaitForSingleObject(event, INFINITE); });
    while (sim::calls("WaitForSingleObject").empty())
        std::this_thread::yield();
    EXPECT_FALSE(sim::calls("WaitForSingleObject")[0].returned);
    sim::clearCalls();
    SetEvent(event);
    waiter.join();
    EXPECT_EQ(sim::callNames(), Names{"SetEvent"});
}

TEST_F(Script, HooksRunBeforeTheCallAndMayOrderItsFailure)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    int seen = 0;
    sim::onCall("SetEvent", [&](const sim::Call& call) {
        ++seen;
        EXPECT_STREQ(call.function, "SetEvent");
        EXPECT_EQ(call.handle, addressOf(event));
        EXPECT_FALSE(sim::isSignalled(event));
    });
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(seen, 1);
    sim::clearHooks();
    SetEvent(event);
    EXPECT_EQ(seen, 1);
}

TEST_F(Script, ResetGivesTheFreshState)
{
    sim::addInput(u"in");
    sim::addOutput(u"out");
    sim::useVirtualTime(1);
    sim::failCall("CreateEventW", 1, 0, sim::kAllFromThere);
    sim::onCall("CreateEventW", [](const sim::Call&) { FAIL(); });
    sim::setHeapHigh(true);
    HeapAlloc(GetProcessHeap(), 0, 16);
    HMIDIOUT handle = nullptr;
    midiOutOpen(&handle, 0, 0, 0, CALLBACK_NULL);
    sim::reset();
    EXPECT_EQ(sim::inUse(), sim::Resources());
    EXPECT_TRUE(sim::calls().empty());
    EXPECT_EQ(sim::callCount("CreateEventW"), 0u);
    EXPECT_EQ(midiInGetNumDevs(), 0u);
    EXPECT_EQ(midiOutClose(handle), MMSYSERR_INVALHANDLE);
    EXPECT_TRUE(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    EXPECT_LT(addressOf(HeapAlloc(GetProcessHeap(), 0, 16)), std::uintptr_t(1) << 32);
}

using ScriptDeathTest = Script;

TEST_F(ScriptDeathTest, MistakesOfATestStopIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(sim::failCall("midiInOpne"), "no simulated function has the name midiInOpne");
    EXPECT_DEATH(sim::failCall("Sleep"), "cannot fail");
    EXPECT_DEATH(sim::shortMessage(3, 0), "there is no device 3");
}

// ---- Devices ------------------------------------------------------------------------------------

struct Devices : SimTest
{};

TEST_F(Devices, AreCountedAndNamedWithinTheFieldOfTheName)
{
    EXPECT_EQ(sim::addInput(u"One"), 0);
    EXPECT_EQ(sim::addInput(u"0123456789012345678901234567890123456789"), 1);
    sim::DeviceOptions broken;
    broken.capsResult = MMSYSERR_NODRIVER;
    EXPECT_EQ(sim::addOutput(u"Broken", broken), 0);
    EXPECT_EQ(midiInGetNumDevs(), 2u);
    EXPECT_EQ(midiOutGetNumDevs(), 1u);

    MIDIINCAPSW in;
    MIDIOUTCAPSW out;
    EXPECT_EQ(midiInGetDevCapsW(0, &in, sizeof in), MMSYSERR_NOERROR);
    EXPECT_EQ(std::u16string(in.szPname), u"One");
    EXPECT_EQ(midiInGetDevCapsW(1, &in, sizeof in), MMSYSERR_NOERROR);
    EXPECT_EQ(std::u16string(in.szPname, MAXPNAMELEN), u"01234567890123456789012345678901");
    EXPECT_EQ(midiInGetDevCapsW(2, &in, sizeof in), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiInGetDevCapsW(0, nullptr, sizeof in), MMSYSERR_INVALPARAM);
    EXPECT_EQ(midiOutGetDevCapsW(0, &out, sizeof out), MMSYSERR_NODRIVER);
    sim::removeDevices();
    EXPECT_EQ(midiInGetNumDevs() + midiOutGetNumDevs(), 0u);
}

TEST_F(Devices, OpenRefusesWhatWindowsRefuses)
{
    sim::DeviceOptions refusing;
    refusing.openResult = MMSYSERR_NOTENABLED;
    sim::DeviceOptions shared;
    shared.maximumClients = 2;
    sim::addOutput(u"exclusive");
    sim::addOutput(u"refusing", refusing);
    sim::addOutput(u"shared", shared);
    HMIDIOUT first = nullptr;
    HMIDIOUT second = nullptr;
    EXPECT_EQ(midiOutOpen(nullptr, 0, 0, 0, CALLBACK_NULL), MMSYSERR_INVALPARAM);
    EXPECT_EQ(midiOutOpen(&first, 0, 0, 0, CALLBACK_FUNCTION), MMSYSERR_INVALPARAM);
    EXPECT_EQ(midiOutOpen(&first, 0, 0, 0, 0x00010000), MMSYSERR_INVALFLAG);
    EXPECT_EQ(midiOutOpen(&first, 3, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutOpen(&first, 0xFFFFFFFF, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutOpen(&first, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOTENABLED);
    EXPECT_EQ(midiOutOpen(&first, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutOpen(&second, 0, 0, 0, CALLBACK_NULL), MMSYSERR_ALLOCATED);
    EXPECT_EQ(midiOutClose(first), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutOpen(&second, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_NE(first, second);
    EXPECT_EQ(midiOutOpen(&first, 2, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutOpen(&first, 2, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutOpen(&first, 2, 0, 0, CALLBACK_NULL), MMSYSERR_ALLOCATED);
    EXPECT_EQ(sim::inUse().outputPorts, 3);
}

// ---- Ports --------------------------------------------------------------------------------------

// What a callback was called with, and the header's state at that moment.
struct Received
{
    UINT message;
    DWORD parameter1;
    Bytes data; // of a long message
    DWORD flags;
};

// Collects callbacks; its address is the instance value.
struct Receiver
{
    std::mutex lock;
    std::vector<Received> received;
    std::function<void(UINT)> also; // runs inside the callback, without the lock

    std::vector<Received> take()
    {
        const std::lock_guard<std::mutex> guard(lock);
        return std::move(received);
    }
    std::vector<UINT> messages()
    {
        const std::lock_guard<std::mutex> guard(lock);
        std::vector<UINT> result;
        for (const Received& entry : received)
            result.push_back(entry.message);
        return result;
    }
};

MIDIHDR* headerAt(DWORD address)
{
    return reinterpret_cast<MIDIHDR*>(std::uintptr_t(address));
}

void receive(DWORD_PTR instance, UINT message, DWORD parameter1)
{
    auto& receiver = *reinterpret_cast<Receiver*>(instance);
    Received entry{message, parameter1, {}, 0};
    if (message == MIM_LONGDATA || message == MIM_LONGERROR || message == MOM_DONE) {
        const MIDIHDR& header = *headerAt(parameter1);
        const auto* const data = reinterpret_cast<const unsigned char*>(header.lpData);
        entry.data.assign(data, data + header.dwBytesRecorded);
        entry.flags = header.dwFlags;
    }
    {
        const std::lock_guard<std::mutex> guard(receiver.lock);
        receiver.received.push_back(entry);
    }
    if (receiver.also)
        receiver.also(message);
}

void CALLBACK inputProcedure(HMIDIIN, UINT message, DWORD_PTR instance, DWORD parameter1, DWORD)
{
    receive(instance, message, parameter1);
}

void CALLBACK outputProcedure(HMIDIOUT, UINT message, DWORD_PTR instance, DWORD parameter1, DWORD)
{
    receive(instance, message, parameter1);
}

// Headers with buffers, in heap memory, so that 32 bits name them.
struct Headers
{
    explicit Headers(unsigned count, DWORD length = 4096)
        : headers(static_cast<MIDIHDR*>(
              HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, count * sizeof(MIDIHDR)))),
          data(static_cast<char*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, count * length)))
    {
        for (unsigned i = 0; i < count; ++i) {
            headers[i].lpData = data + i * length;
            headers[i].dwBufferLength = length;
        }
    }
    ~Headers()
    {
        HeapFree(GetProcessHeap(), 0, data);
        HeapFree(GetProcessHeap(), 0, headers);
    }
    Headers(const Headers&) = delete;
    Headers& operator=(const Headers&) = delete;

    MIDIHDR& operator[](unsigned i) { return headers[i]; }

    MIDIHDR* headers;
    char* data;
};

struct Input : SimTest
{
    HMIDIIN open()
    {
        HMIDIIN handle = nullptr;
        EXPECT_EQ(midiInOpen(&handle, 0, reinterpret_cast<DWORD_PTR>(&inputProcedure),
                             reinterpret_cast<DWORD_PTR>(&receiver), CALLBACK_FUNCTION),
                  MMSYSERR_NOERROR);
        return handle;
    }
    // Opens, queues the headers and starts.
    HMIDIIN openWith(Headers& headers, unsigned count)
    {
        const HMIDIIN handle = open();
        for (unsigned i = 0; i < count; ++i)
            add(handle, headers[i]);
        EXPECT_EQ(midiInStart(handle), MMSYSERR_NOERROR);
        return handle;
    }
    static void add(HMIDIIN handle, MIDIHDR& header)
    {
        EXPECT_EQ(midiInPrepareHeader(handle, &header, kHeaderSize), MMSYSERR_NOERROR);
        EXPECT_EQ(midiInAddBuffer(handle, &header, kHeaderSize), MMSYSERR_NOERROR);
    }

    const int device = sim::addInput(u"In");
    Receiver receiver;
};

TEST_F(Input, OpenAndCloseAreReportedAndShortMessagesArriveOnlyWhileStarted)
{
    const HMIDIIN handle = open();
    EXPECT_FALSE(sim::shortMessage(device, 0x643C90));
    EXPECT_EQ(midiInStart(handle), MMSYSERR_NOERROR);
    EXPECT_TRUE(sim::isStarted(device));
    EXPECT_TRUE(sim::shortMessage(device, 0x643C90));
    EXPECT_EQ(midiInStop(handle), MMSYSERR_NOERROR);
    EXPECT_FALSE(sim::shortMessage(device, 0x003C80));
    EXPECT_EQ(midiInClose(handle), MMSYSERR_NOERROR);
    EXPECT_FALSE(sim::shortMessage(device, 0x003C80));
    EXPECT_EQ(receiver.messages(), (std::vector<UINT>{MIM_OPEN, MIM_DATA, MIM_CLOSE}));
    EXPECT_EQ(receiver.take()[1].parameter1, 0x643C90u);
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(Input, SysExFillsTheQueuedBuffersInOrder)
{
    Headers headers(3, 4);
    const HMIDIIN handle = openWith(headers, 3);
    const Bytes bytes{0xF0, 1, 2, 3, 4, 5, 0xF7};
    EXPECT_EQ(headers[0].dwFlags, MHDR_PREPARED | MHDR_INQUEUE);
    EXPECT_EQ(sim::sysEx(device, bytes.data(), bytes.size()), 7u);
    const std::vector<Received> received = receiver.take();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[1].message, MIM_LONGDATA);
    EXPECT_EQ(headerAt(received[1].parameter1), &headers[0]);
    EXPECT_EQ(received[1].data, (Bytes{0xF0, 1, 2, 3}));
    EXPECT_EQ(received[1].flags, MHDR_PREPARED | MHDR_DONE);
    EXPECT_EQ(headerAt(received[2].parameter1), &headers[1]);
    EXPECT_EQ(received[2].data, (Bytes{4, 5, 0xF7}));
    EXPECT_EQ(sim::queuedBuffers(device), 1u);

    EXPECT_EQ(sim::sysEx(device, bytes.data(), bytes.size()), 4u);
    EXPECT_EQ(sim::sysEx(device, bytes.data(), bytes.size()), 0u);
    EXPECT_EQ(midiInClose(handle), MMSYSERR_NOERROR);
}

TEST_F(Input, AReturnedBufferGoesToTheEndOfTheQueue)
{
    Headers headers(2, 4);
    const HMIDIIN handle = openWith(headers, 2);
    sim::sysEx(device, "ab", 2);
    EXPECT_EQ(midiInUnprepareHeader(handle, &headers[0], kHeaderSize), MMSYSERR_NOERROR);
    EXPECT_EQ(headers[0].dwFlags & (MHDR_PREPARED | MHDR_INQUEUE), 0u);
    headers[0].dwFlags = 0;
    add(handle, headers[0]);
    EXPECT_EQ(headers[0].dwBytesRecorded, 0u);
    receiver.take();
    sim::sysEx(device, "cdefg", 5);
    const std::vector<Received> received = receiver.take();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(headerAt(received[0].parameter1), &headers[1]);
    EXPECT_EQ(headerAt(received[1].parameter1), &headers[0]);
    EXPECT_EQ(received[1].data, Bytes{'g'});
}

TEST_F(Input, NullAndClosedHandlesAreRefusedEverywhere)
{
    Headers headers(1);
    const HMIDIIN closed = open();
    midiInClose(closed);
    const HMIDIIN reopened = open();
    EXPECT_NE(closed, reopened);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    for (const HMIDIIN handle : {HMIDIIN(nullptr), closed, reinterpret_cast<HMIDIIN>(event)}) {
        EXPECT_EQ(midiInStart(handle), MMSYSERR_INVALHANDLE);
        EXPECT_EQ(midiInStop(handle), MMSYSERR_INVALHANDLE);
        EXPECT_EQ(midiInReset(handle), MMSYSERR_INVALHANDLE);
        EXPECT_EQ(midiInClose(handle), MMSYSERR_INVALHANDLE);
        EXPECT_EQ(midiInPrepareHeader(handle, &headers[0], kHeaderSize), MMSYSERR_INVALHANDLE);
        EXPECT_EQ(midiInAddBuffer(handle, &headers[0], kHeaderSize), MMSYSERR_INVALHANDLE);
        EXPECT_EQ(midiInUnprepareHeader(handle, &headers[0], kHeaderSize), MMSYSERR_INVALHANDLE);
    }
}

TEST_F(Input, ScriptReturnsBuffersAsBadlyAsItIsTold)
{
    Headers headers(3, 4);
    const HMIDIIN handle = open();
    for (unsigned i = 0; i < 3; ++i)
        add(handle, headers[i]);
    receiver.take();
    receiver.also = [&](UINT) {};
    EXPECT_EQ(sim::returnBuffer(device, 2, "xy", 2, MIM_LONGERROR), &headers[0]);
    EXPECT_EQ(sim::returnBuffer(device, 0), &headers[1]);
    const std::vector<Received> received = receiver.take();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].message, MIM_LONGERROR);
    EXPECT_EQ(received[0].data, (Bytes{'x', 'y'}));
    EXPECT_EQ(received[1].message, MIM_LONGDATA);
    EXPECT_EQ(received[1].data, Bytes());
    EXPECT_EQ(headers[0].dwBytesRecorded, 2u);
    midiInReset(handle);
    EXPECT_EQ(sim::returnBuffer(device, 0), nullptr);
    midiInClose(handle);
}

TEST_F(Input, BytesRecordedMayLieButNoMoreIsWrittenThanFits)
{
    Headers headers(1, 4);
    HMIDIIN handle = nullptr;
    midiInOpen(&handle, 0, 0, 0, CALLBACK_NULL);
    add(handle, headers[0]);
    EXPECT_EQ(sim::returnBuffer(device, 0xFFFFFFFF, "abcdefgh", 8), &headers[0]);
    EXPECT_EQ(headers[0].dwBytesRecorded, 0xFFFFFFFFu);
    EXPECT_EQ(std::string(headers.data, 4), "abcd");
}

TEST_F(Input, RawCallsTheCallbackWithAnything)
{
    EXPECT_FALSE(sim::raw(device, MIM_DATA, 1, 2));
    open();
    receiver.take();
    EXPECT_TRUE(sim::raw(device, MIM_MOREDATA, 0x12345678, 2));
    EXPECT_TRUE(sim::raw(device, 0, 0, 0));
    const std::vector<Received> received = receiver.take();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].message, MIM_MOREDATA);
    EXPECT_EQ(received[0].parameter1, 0x12345678u);
}

TEST_F(Input, LogNamesHeadersByTheirPlaceInTheArray)
{
    Headers headers(3);
    const HMIDIIN handle = openWith(headers, 3);
    midiInReset(handle);
    const std::vector<sim::Call> calls = sim::calls("midiInAddBuffer");
    ASSERT_EQ(calls.size(), 3u);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(calls[i].headerIndex, static_cast<int>(i));
        EXPECT_EQ(calls[i].header, addressOf(&headers[i]));
        EXPECT_EQ(calls[i].headerFlags, MHDR_PREPARED);
        EXPECT_EQ(calls[i].headerLength, 4096u);
    }
}

TEST_F(Input, InjectedFailuresHitTheCallAndLeaveThePortAlone)
{
    Headers headers(3);
    const HMIDIIN handle = open();
    sim::failCall("midiInAddBuffer", 2, MMSYSERR_NOMEM);
    sim::failCall("midiInUnprepareHeader", 1, MIDIERR_STILLPLAYING, 2);
    for (unsigned i = 0; i < 3; ++i) {
        midiInPrepareHeader(handle, &headers[i], kHeaderSize);
        EXPECT_EQ(midiInAddBuffer(handle, &headers[i], kHeaderSize),
                  i == 1 ? MMSYSERR_NOMEM : MMSYSERR_NOERROR);
    }
    EXPECT_EQ(sim::queuedBuffers(device), 2u);
    midiInReset(handle);
    EXPECT_EQ(midiInUnprepareHeader(handle, &headers[0], kHeaderSize), MIDIERR_STILLPLAYING);
    EXPECT_EQ(midiInUnprepareHeader(handle, &headers[0], kHeaderSize), MIDIERR_STILLPLAYING);
    EXPECT_EQ(midiInUnprepareHeader(handle, &headers[0], kHeaderSize), MMSYSERR_NOERROR);
}

TEST_F(Input, AHookCanLetInputArriveInTheMiddleOfACall)
{
    Headers headers(1);
    const HMIDIIN handle = openWith(headers, 1);
    receiver.take();
    sim::onCall("midiInReset", [&](const sim::Call&) { sim::sysEx(device, "abc", 3); });
    midiInReset(handle);
    const std::vector<Received> received = receiver.take();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].data.size(), 3u);
}

TEST_F(Input, EveryClientOfASharedInputGetsItsCopy)
{
    sim::reset();
    sim::DeviceOptions options;
    options.maximumClients = 2;
    sim::addInput(u"shared", options);
    Headers headers(2);
    const HMIDIIN first = openWith(headers, 1);
    const HMIDIIN second = open();
    add(second, headers[1]);
    midiInStart(second);
    receiver.take();
    EXPECT_TRUE(sim::shortMessage(device, 0xFE));
    EXPECT_EQ(sim::sysEx(device, "abc", 3), 3u);
    EXPECT_EQ(receiver.messages(),
              (std::vector<UINT>{MIM_DATA, MIM_DATA, MIM_LONGDATA, MIM_LONGDATA}));
    EXPECT_EQ(midiInClose(first), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInClose(second), MMSYSERR_NOERROR);
}

// ---- Unplugging ---------------------------------------------------------------------------------

TEST_F(Input, AnUnpluggedDeviceKeepsItsPlaceAndOpensAnewWhenItIsBack)
{
    sim::setDriverKind(sim::DriverKind::Windows11);
    Headers headers(1);
    const HMIDIIN lost = openWith(headers, 1);
    const HMIDIIN second = open(); // of any number
    sim::unplugInput(device);
    MIDIINCAPSW caps;
    HMIDIIN refused = nullptr;
    EXPECT_EQ(midiInGetNumDevs(), 1u);
    EXPECT_EQ(midiInGetDevCapsW(0, &caps, sizeof caps), MMSYSERR_NODRIVER);
    EXPECT_EQ(midiInOpen(&refused, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NODRIVER);
    EXPECT_FALSE(sim::shortMessage(device, 0xF8));
    EXPECT_EQ(midiInReset(lost), MMSYSERR_NODRIVER);
    EXPECT_EQ(midiInClose(lost), MIDIERR_STILLPLAYING);
    EXPECT_EQ(midiInClose(second), MMSYSERR_NOERROR);

    sim::plugInInput(device);
    const HMIDIIN fresh = open();
    midiInStart(fresh);
    EXPECT_TRUE(sim::shortMessage(device, 0xF8));
    EXPECT_EQ(midiInClose(fresh), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInStop(lost), MMSYSERR_NODRIVER);
    EXPECT_EQ(sim::inUse().inputBuffers, 1);
    receiver.take();
    sim::unloadDriver();
    EXPECT_EQ(receiver.messages(), std::vector<UINT>{MIM_CLOSE});
    EXPECT_EQ(midiInClose(lost), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(sim::inUse().inputPorts, 0);
}

TEST_F(Input, AnUnpluggedDeviceOfAnotherKindStillServesItsClient)
{
    Headers headers(1);
    const HMIDIIN handle = openWith(headers, 1);
    sim::unplugInput(device);
    EXPECT_EQ(sim::sysEx(device, "abc", 3), 0u);
    EXPECT_EQ(midiInReset(handle), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInClose(handle), MMSYSERR_NOERROR);
}

// ---- Flood --------------------------------------------------------------------------------------

// Counts and looks at nothing, so that it may outlive the close.
void CALLBACK countingProcedure(HMIDIIN, UINT message, DWORD_PTR instance, DWORD, DWORD)
{
    if (message == MIM_DATA || message == MIM_LONGDATA)
        ++*reinterpret_cast<std::atomic<std::uint64_t>*>(instance);
}

struct FloodKinds : Input, testing::WithParamInterface<sim::DriverKind>
{};

TEST_P(FloodKinds, BuffersComeBackInEveryCycleOfOpeningAndClosing)
{
    sim::logCalls(false);
    sim::setDriverKind(GetParam());
    constexpr unsigned kHeaders = 16;
    Headers headers(kHeaders, 64);
    std::atomic<std::uint64_t> count{0};
    sim::FloodOptions options;
    options.sysExEvery = 3;
    options.sysExLength = 100;
    sim::startFlood(device, options);
    for (int cycle = 0; cycle < 200; ++cycle) {
        HMIDIIN handle = nullptr;
        ASSERT_EQ(midiInOpen(&handle, 0, reinterpret_cast<DWORD_PTR>(&countingProcedure),
                             reinterpret_cast<DWORD_PTR>(&count), CALLBACK_FUNCTION),
                  MMSYSERR_NOERROR);
        for (unsigned i = 0; i < kHeaders; ++i) {
            headers[i].dwFlags = 0;
            add(handle, headers[i]);
        }
        const std::uint64_t before = count;
        ASSERT_EQ(midiInStart(handle), MMSYSERR_NOERROR);
        while (count < before + 10)
            std::this_thread::yield();
        ASSERT_EQ(midiInStop(handle), MMSYSERR_NOERROR);
        ASSERT_EQ(midiInReset(handle), MMSYSERR_NOERROR);
        for (unsigned i = 0; i < kHeaders; ++i)
            ASSERT_EQ(midiInUnprepareHeader(handle, &headers[i], kHeaderSize), MMSYSERR_NOERROR);
        ASSERT_EQ(midiInClose(handle), MMSYSERR_NOERROR);
    }
    EXPECT_GT(sim::stopFlood(device).shortMessages, 0u);
    EXPECT_EQ(sim::inUse().inputPorts, 0);
    EXPECT_EQ(sim::inUse().inputBuffers, 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, FloodKinds,
                         testing::Values(sim::DriverKind::WaitsInReset,
                                         sim::DriverKind::WaitsInClose,
                                         sim::DriverKind::WaitsInNeither,
                                         sim::DriverKind::Windows11));

TEST_F(Input, FloodReportsWhatThePortTook)
{
    Headers headers(4, 64);
    const HMIDIIN handle = openWith(headers, 4);
    receiver.take();
    sim::FloodOptions options;
    options.sysExEvery = 4;
    options.sysExLength = 100;
    options.limit = 12;
    sim::startFlood(device, options);
    const sim::FloodReport report = sim::waitForFlood(device);
    EXPECT_EQ(report.shortMessages, 9u);
    EXPECT_EQ(report.sysExMessages, 2u); // two buffers each, four buffers in all
    EXPECT_EQ(report.refused, 1u);

    const std::vector<Received> received = receiver.take();
    ASSERT_EQ(received.size(), 9u + 4u);
    Bytes first = received[0].data;
    first.insert(first.end(), received[1].data.begin(), received[1].data.end());
    EXPECT_EQ(first, sim::floodSysEx(0, 100));
    EXPECT_EQ(received[2].parameter1, sim::floodShort(1));
    midiInClose(handle);
}

TEST_F(Input, FloodRunsTheGeneratorOfTheTestOnItsOwnThread)
{
    std::vector<std::uint64_t> numbers;
    std::uint64_t thread = 0;
    sim::FloodOptions options;
    options.limit = 3;
    options.message = [&](std::uint64_t n) {
        numbers.push_back(n);
        thread = sim::currentThread();
    };
    sim::startFlood(device, options);
    sim::waitForFlood(device);
    EXPECT_EQ(numbers, (std::vector<std::uint64_t>{0, 1, 2}));
    EXPECT_NE(thread, sim::currentThread());
}

TEST_F(Input, ShortMessagesAreCheap)
{
    sim::logCalls(false);
    HMIDIIN handle = nullptr;
    midiInOpen(&handle, 0, 0, 0, CALLBACK_NULL);
    midiInStart(handle);
    constexpr int kMessages = 200000;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kMessages; ++i)
        sim::shortMessage(device, 0xF8);
    const auto each = (std::chrono::steady_clock::now() - begin) / kMessages;
    RecordProperty("nanosecondsPerMessage", static_cast<int>(each.count()));
    // Sanitizers and busy machines included; it takes a tenth of a microsecond without them.
    EXPECT_LT(each, std::chrono::microseconds(20));
}

// ---- Output -------------------------------------------------------------------------------------

struct Output : SimTest
{
    HMIDIOUT open()
    {
        HMIDIOUT handle = nullptr;
        EXPECT_EQ(midiOutOpen(&handle, 0, reinterpret_cast<DWORD_PTR>(&outputProcedure),
                              reinterpret_cast<DWORD_PTR>(&receiver), CALLBACK_FUNCTION),
                  MMSYSERR_NOERROR);
        return handle;
    }
    static MMRESULT send(HMIDIOUT handle, MIDIHDR& header, const Bytes& bytes)
    {
        std::memcpy(header.lpData, bytes.data(), bytes.size());
        header.dwBufferLength = static_cast<DWORD>(bytes.size());
        header.dwFlags = 0;
        EXPECT_EQ(midiOutPrepareHeader(handle, &header, kHeaderSize), MMSYSERR_NOERROR);
        return midiOutLongMsg(handle, &header, kHeaderSize);
    }

    const int device = sim::addOutput(u"Out");
    Receiver receiver;
};

TEST_F(Output, InlineCompletionReportsBeforeTheSendReturns)
{
    Headers headers(1);
    const HMIDIOUT handle = open();
    EXPECT_EQ(send(handle, headers[0], {0xF0, 1, 0xF7}), MMSYSERR_NOERROR);
    EXPECT_EQ(receiver.messages(), (std::vector<UINT>{MOM_OPEN, MOM_DONE}));
    EXPECT_EQ(headers[0].dwFlags, MHDR_PREPARED | MHDR_DONE);
    ASSERT_EQ(sim::sent(device).size(), 1u);
    EXPECT_EQ(sim::sent(device)[0].bytes, (Bytes{0xF0, 1, 0xF7}));
    EXPECT_EQ(sim::sent(device)[0].header, &headers[0]);
    EXPECT_EQ(midiOutClose(handle), MMSYSERR_NOERROR);
    EXPECT_EQ(receiver.messages().back(), MOM_CLOSE);
}

TEST_F(Output, ADriverThreadCompletesSendsByItself)
{
    sim::setCompletion(device, sim::Completion::Thread);
    Headers headers(1);
    const HMIDIOUT handle = open();
    const HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::uint64_t thread = 0;
    receiver.also = [&](UINT message) {
        if (message == MOM_DONE) {
            thread = sim::currentThread();
            SetEvent(done);
        }
    };
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(send(handle, headers[0], {1}), MMSYSERR_NOERROR);
        ASSERT_EQ(WaitForSingleObject(done, INFINITE), WAIT_OBJECT_0);
        ASSERT_EQ(midiOutUnprepareHeader(handle, &headers[0], kHeaderSize), MMSYSERR_NOERROR);
    }
    EXPECT_NE(thread, sim::currentThread());
    EXPECT_EQ(midiOutClose(handle), MMSYSERR_NOERROR);
}

TEST_F(Output, AHeaderPolledForDoneIsFoundDone)
{
    sim::setCompletion(device, sim::Completion::Thread);
    Headers headers(1);
    HMIDIOUT handle = nullptr;
    midiOutOpen(&handle, 0, 0, 0, CALLBACK_NULL);
    const auto flags = [&] {
        return __atomic_load_n(
            reinterpret_cast<const DWORD*>(reinterpret_cast<const char*>(&headers[0]) +
                                           offsetof(MIDIHDR, dwFlags)),
            __ATOMIC_ACQUIRE);
    };
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(send(handle, headers[0], {1}), MMSYSERR_NOERROR);
        while ((flags() & MHDR_DONE) == 0)
            Sleep(0);
        ASSERT_EQ(midiOutUnprepareHeader(handle, &headers[0], kHeaderSize), MMSYSERR_NOERROR);
    }
    midiOutClose(handle);
}

TEST_F(Output, SendsAreRecordedWithTheirTime)
{
    sim::useVirtualTime(100);
    Headers headers(1);
    const HMIDIOUT handle = open();
    midiOutShortMsg(handle, 0x00643C90);
    Sleep(50);
    send(handle, headers[0], {0xF0, 0xF7});
    const std::vector<sim::Sent> sent = sim::sent(device);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(sent[0].isShort);
    EXPECT_EQ(sent[0].bytes, (Bytes{0x90, 0x3C, 0x64, 0}));
    EXPECT_EQ(sent[0].time, 100u);
    EXPECT_FALSE(sent[1].isShort);
    EXPECT_EQ(sent[1].time, 150u);
    sim::clearSent(device);
    EXPECT_TRUE(sim::sent(device).empty());
}

TEST_F(Output, AStalledOrUnpluggedOneFailsOnWindows11)
{
    sim::reset();
    sim::DeviceOptions options;
    options.kind = sim::DriverKind::Windows11;
    options.windows11.sendPiece = 10;
    sim::addOutput(u"Out", options);
    Headers headers(1);
    const HMIDIOUT handle = open();
    sim::stallOutput(device, true);
    EXPECT_EQ(send(handle, headers[0], {0xF0, 0xF7}), MMSYSERR_ERROR);
    EXPECT_EQ(headers[0].dwFlags, MHDR_PREPARED);
    sim::stallOutput(device, false);
    EXPECT_EQ(send(handle, headers[0], {0xF0, 0xF7}), MMSYSERR_NOERROR);
    sim::unplugOutput(device);
    EXPECT_EQ(midiOutShortMsg(handle, 0xF8), MMSYSERR_NODRIVER);
    EXPECT_EQ(midiOutClose(handle), MMSYSERR_NOERROR);
    EXPECT_EQ(receiver.messages(), (std::vector<UINT>{MOM_OPEN, MOM_DONE, MOM_CLOSE}));
    sim::plugInOutput(device);
    EXPECT_EQ(midiOutClose(open()), MMSYSERR_NOERROR);
}

TEST_F(Output, RawCallsTheCallbackWithAnything)
{
    EXPECT_FALSE(sim::rawOutput(device, MOM_DONE, 0, 0));
    open();
    EXPECT_TRUE(sim::rawOutput(device, 0x123, 7, 0));
    EXPECT_EQ(receiver.take().back().parameter1, 7u);
}

} // namespace
