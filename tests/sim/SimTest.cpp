// The simulated Windows against what Windows promises, and its script against what Sim.h promises.
#include "Sim.h"
#include "objbase.h"
#include "tests/contract/MidiRecorder.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

namespace {

using contract::Buffer;
using contract::Bytes;
using contract::Input;
using contract::Output;
using contract::sysEx;
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

using Events = SimTest;

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
        EXPECT_FALSE(SetEvent(handle));
        EXPECT_FALSE(ResetEvent(handle));
        EXPECT_FALSE(CloseHandle(handle));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    EXPECT_TRUE(sim::isSignalled(open));
    EXPECT_EQ(sim::inUse().handles, 1);
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

using Time = SimTest;

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
    sim::setTime(0xFFFFFFFF - 9);
    Sleep(25);
    EXPECT_EQ(timeGetTime(), 20u); // it wraps around
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
    sim::onSleep([&](DWORD) { seen.clear(); }); // in place of the other
    Sleep(1);
    EXPECT_TRUE(seen.empty());
    sim::onSleep(nullptr);
    Sleep(1);
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

using Memory = SimTest;
using MemoryDeathTest = SimTest;

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

TEST_F(Memory, VirtualQueryFindsWhatVirtualAllocGives)
{
    MEMORY_BASIC_INFORMATION region{};
    do {
        const std::uintptr_t next = addressOf(region.BaseAddress) + region.RegionSize;
        ASSERT_EQ(VirtualQuery(reinterpret_cast<void*>(next), &region, sizeof region),
                  sizeof region);
    } while (region.State != MEM_FREE || addressOf(region.BaseAddress) % 65536 != 0 ||
             region.BaseAddress == nullptr);
    const auto allocate = [&] {
        return VirtualAlloc(region.BaseAddress, 86016, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    };
    void* const memory = allocate();
    EXPECT_EQ(memory, region.BaseAddress);
    std::memset(memory, 1, 86016);
    EXPECT_EQ(allocate(), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(VirtualQuery(memory, &region, sizeof region), sizeof region);
    EXPECT_EQ(region.State, MEM_COMMIT);
    EXPECT_EQ(region.BaseAddress, memory);
    EXPECT_EQ(sim::inUse().virtualBlocks, 1);
    EXPECT_TRUE(VirtualFree(memory, 0, MEM_RELEASE));
    EXPECT_EQ(VirtualQuery(memory, &region, sizeof region), sizeof region);
    EXPECT_EQ(region.State, MEM_FREE);
    EXPECT_EQ(sim::inUse(), sim::Resources());
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

using Script = SimTest;
using ScriptDeathTest = SimTest;

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
    EXPECT_EQ(sim::callCount("CreateEventW"), 3u);

    sim::failCall("CoTaskMemAlloc", 2, ERROR_NOT_ENOUGH_MEMORY, sim::kAllFromThere);
    CoTaskMemFree(CoTaskMemAlloc(8));
    EXPECT_EQ(sim::inUse().taskBlocks, 0);
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(CoTaskMemAlloc(8));
    sim::clearFailures();
    void* const memory = CoTaskMemAlloc(8);
    EXPECT_TRUE(memory);
    EXPECT_EQ(sim::inUse().taskBlocks, 1);
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
    EXPECT_FALSE(VirtualAlloc(event, 8, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
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

TEST_F(ScriptDeathTest, MistakesOfATestStopIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(sim::failCall("midiInOpne"), "no simulated function has the name midiInOpne");
    EXPECT_DEATH(sim::failCall("Sleep"), "cannot fail");
    EXPECT_DEATH(sim::shortMessage(3, 0), "there is no device 3");
    EXPECT_DEATH(CreateEventW(nullptr, TRUE, FALSE, nullptr), "no manual-reset events");
}

// ---- Devices ------------------------------------------------------------------------------------

using Devices = SimTest;

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
    sim::addOutput(u"Out");
    HMIDIOUT first = nullptr;
    HMIDIOUT second = nullptr;
    EXPECT_EQ(midiOutOpen(nullptr, 0, 0, 0, CALLBACK_NULL), MMSYSERR_INVALPARAM);
    EXPECT_EQ(midiOutOpen(&first, 0, 0, 0, CALLBACK_FUNCTION), MMSYSERR_INVALPARAM);
    EXPECT_EQ(midiOutOpen(&first, 0, 0, 0, 0x00010000), MMSYSERR_INVALFLAG);
    EXPECT_EQ(midiOutOpen(&first, 0xFFFFFFFF, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutOpen(&first, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutOpen(&second, 0, 0, 0, CALLBACK_NULL), MMSYSERR_ALLOCATED);
    EXPECT_EQ(sim::inUse().outputPorts, 1);
    EXPECT_EQ(midiOutClose(first), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutOpen(&second, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_NE(first, second);
}

// ---- Input --------------------------------------------------------------------------------------
// What WinMM's clients see of it is in tests/contract, which runs on the simulation, too.

struct InputPort : SimTest
{
    const int device = sim::addInput(u"In");
};

TEST_F(InputPort, ShortMessagesAreTakenOnlyWhileStarted)
{
    Input input;
    EXPECT_FALSE(sim::shortMessage(device, 0x643C90));
    input.start();
    EXPECT_TRUE(sim::isStarted(device));
    EXPECT_TRUE(sim::shortMessage(device, 0x643C90));
    input.stop();
    EXPECT_FALSE(sim::isStarted(device));
    EXPECT_FALSE(sim::shortMessage(device, 0x643C90));
    input.close();
    EXPECT_FALSE(sim::shortMessage(device, 0x643C90));
    EXPECT_EQ(input.recorder.waitForShort(1), std::vector<DWORD>{0x643C90});
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(InputPort, SysExTellsHowMuchFoundABuffer)
{
    Input input;
    input.giveBuffers(3, 4);
    input.start();
    const Bytes bytes = sysEx(7);
    EXPECT_EQ(sim::sysEx(device, bytes.data(), bytes.size()), 7u);
    EXPECT_EQ(sim::queuedBuffers(device), 1u);
    EXPECT_EQ(sim::sysEx(device, bytes.data(), bytes.size()), 4u);
    EXPECT_EQ(sim::sysEx(device, bytes.data(), bytes.size()), 0u);
}

TEST_F(InputPort, ScriptReturnsBuffersAsBadlyAsItIsTold)
{
    Input input;
    const auto buffers = input.giveBuffers(2, 4);
    EXPECT_EQ(sim::returnBuffer(device, 2, "xy", 2, MIM_LONGERROR), buffers[0]->header());
    ASSERT_EQ(input.recorder.notices(MIM_LONGERROR).size(), 1u);
    EXPECT_EQ(input.recorder.notices(MIM_LONGERROR)[0].bytes, (Bytes{'x', 'y'}));
    EXPECT_EQ(sim::returnBuffer(device, 0), buffers[1]->header());
    EXPECT_EQ(input.recorder.notices(MIM_LONGDATA)[0].bytes, Bytes());
    EXPECT_EQ(sim::returnBuffer(device, 0), nullptr);
}

TEST_F(InputPort, BytesRecordedMayLieButNoMoreIsWrittenThanFits)
{
    HMIDIIN handle = nullptr;
    midiInOpen(&handle, 0, 0, 0, CALLBACK_NULL);
    Buffer buffer(Bytes(8, 0));
    buffer.header()->dwBufferLength = 4;
    midiInPrepareHeader(handle, buffer.header(), kHeaderSize);
    midiInAddBuffer(handle, buffer.header(), kHeaderSize);
    EXPECT_EQ(sim::returnBuffer(device, 0xFFFFFFFF, "abcdefgh", 8), buffer.header());
    EXPECT_EQ(buffer.recorded(), 0xFFFFFFFFu);
    EXPECT_STREQ(buffer.header()->lpData, "abcd");
}

TEST_F(InputPort, RawCallsTheCallbackWithAnything)
{
    EXPECT_FALSE(sim::raw(device, MIM_DATA, 1, 2));
    Input input;
    EXPECT_TRUE(sim::raw(device, MIM_MOREDATA, 0x12345678, 2));
    EXPECT_TRUE(sim::raw(device, 0, 0, 0));
    ASSERT_EQ(input.recorder.notices().size(), 3u);
    EXPECT_EQ(input.recorder.notices()[1].message, MIM_MOREDATA);
    EXPECT_EQ(input.recorder.notices()[1].parameter1, 0x12345678u);
}

TEST_F(InputPort, LogNamesHeadersByTheirPlaceInTheArray)
{
    auto* const headers =
        static_cast<MIDIHDR*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 3 * sizeof(MIDIHDR)));
    headers[2].dwFlags = MHDR_DONE;
    headers[2].dwBufferLength = 4096;
    midiInAddBuffer(nullptr, &headers[2], kHeaderSize);
    HeapFree(GetProcessHeap(), 0, headers);
    const sim::Call call = sim::calls("midiInAddBuffer").at(0);
    EXPECT_EQ(call.headerIndex, 2);
    EXPECT_EQ(call.header, addressOf(headers + 2));
    EXPECT_EQ(call.headerFlags, MHDR_DONE);
    EXPECT_EQ(call.headerLength, 4096u);
}

TEST_F(InputPort, EveryClientGetsItsCopy)
{
    sim::setDriverKind(sim::DriverKind::Windows11); // any number of clients
    Input clients[2];
    for (Input& client : clients) {
        client.giveBuffers(1, 16);
        client.start();
    }
    EXPECT_TRUE(sim::shortMessage(device, 0xFE));
    EXPECT_EQ(sim::sysEx(device, "abc", 3), 3u);
    for (Input& client : clients) {
        EXPECT_EQ(client.recorder.waitForShort(1), std::vector<DWORD>{0xFE});
        EXPECT_EQ(client.recorder.waitForLong(3), (Bytes{'a', 'b', 'c'}));
    }
}

// ---- Unplugging ---------------------------------------------------------------------------------

TEST_F(InputPort, AnUnpluggedDeviceKeepsItsPlaceAndOpensAnewWhenItIsBack)
{
    sim::setDriverKind(sim::DriverKind::Windows11);
    Input lost;
    lost.giveBuffers(1, 16);
    lost.start();
    sim::unplugInput(device);
    MIDIINCAPSW caps;
    EXPECT_EQ(midiInGetNumDevs(), 1u);
    EXPECT_EQ(midiInGetDevCapsW(0, &caps, sizeof caps), MMSYSERR_NODRIVER);
    EXPECT_EQ(Input().result, MMSYSERR_NODRIVER);
    EXPECT_FALSE(sim::shortMessage(device, 0xF8));
    EXPECT_EQ(lost.reset(), MMSYSERR_NODRIVER);
    EXPECT_EQ(midiInClose(lost.handle), MIDIERR_STILLPLAYING);

    sim::plugInInput(device);
    {
        Input fresh;
        fresh.start();
        EXPECT_TRUE(sim::shortMessage(device, 0xF8));
    }
    EXPECT_EQ(lost.stop(), MMSYSERR_NODRIVER);
    EXPECT_EQ(sim::inUse().inputBuffers, 1);
    EXPECT_EQ(lost.recorder.notices().size(), 1u);
    sim::unloadDriver();
    EXPECT_EQ(lost.recorder.notices(MIM_CLOSE).size(), 1u);
    EXPECT_EQ(midiInClose(lost.handle), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(sim::inUse().inputPorts, 0);
}

TEST_F(InputPort, AnUnpluggedDeviceOfAnotherKindStillServesItsClient)
{
    Input input;
    input.giveBuffers(1, 16);
    input.start();
    sim::unplugInput(device);
    EXPECT_EQ(sim::sysEx(device, "abc", 3), 0u);
    EXPECT_EQ(input.reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInClose(input.handle), MMSYSERR_NOERROR);
}

// ---- Flood --------------------------------------------------------------------------------------

TEST_F(InputPort, FloodReportsWhatThePortTook)
{
    Input input;
    input.giveBuffers(4, 64);
    input.start();
    sim::FloodOptions options;
    options.sysExEvery = 4;
    options.sysExLength = 100;
    options.limit = 12;
    sim::startFlood(device, options);
    const sim::FloodReport report = sim::waitForFlood(device);
    EXPECT_EQ(report.shortMessages, 9u);
    EXPECT_EQ(report.sysExMessages, 2u); // two buffers each, four buffers in all
    EXPECT_EQ(report.refused, 1u);
    const Bytes all = input.recorder.waitForLong(200);
    EXPECT_EQ(Bytes(all.begin(), all.begin() + 100), sim::floodSysEx(0, 100));
    EXPECT_EQ(input.recorder.waitForShort(9)[0], sim::floodShort(1));
}

// ---- Output -------------------------------------------------------------------------------------

struct OutputPort : SimTest
{
    const int device = sim::addOutput(u"Out");
};

TEST_F(OutputPort, AHeaderPolledForDoneIsFoundDone)
{
    sim::setCompletion(device, sim::Completion::Thread);
    HMIDIOUT handle = nullptr;
    midiOutOpen(&handle, 0, 0, 0, CALLBACK_NULL); // a callback would still look at the header
    Buffer buffer(sysEx(8));
    for (int i = 0; i < 200; ++i) {
        midiOutPrepareHeader(handle, buffer.header(), kHeaderSize);
        ASSERT_EQ(midiOutLongMsg(handle, buffer.header(), kHeaderSize), MMSYSERR_NOERROR);
        while ((buffer.flags() & MHDR_DONE) == 0)
            Sleep(0);
        midiOutUnprepareHeader(handle, buffer.header(), kHeaderSize);
    }
    midiOutClose(handle);
}

TEST_F(OutputPort, SendsAreRecordedWithTheirTimeAndHeader)
{
    sim::useVirtualTime(100);
    Output output;
    output.sendShort(0x00643C90);
    Sleep(50);
    const Buffer* const buffer = output.beginLong({0xF0, 0xF7});
    EXPECT_EQ(buffer->flags(), MHDR_PREPARED | MHDR_DONE); // inline
    const std::vector<sim::Sent> sent = sim::sent(device);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(sent[0].isShort);
    EXPECT_EQ(sent[0].bytes, (Bytes{0x90, 0x3C, 0x64, 0}));
    EXPECT_EQ(sent[0].time, 100u);
    EXPECT_FALSE(sent[1].isShort);
    EXPECT_EQ(sent[1].bytes, (Bytes{0xF0, 0xF7}));
    EXPECT_EQ(sent[1].time, 150u);
    EXPECT_EQ(sent[1].header, const_cast<Buffer*>(buffer)->header());
    sim::clearSent(device);
    EXPECT_TRUE(sim::sent(device).empty());
}

TEST_F(OutputPort, AStalledOrUnpluggedOneFailsOnWindows11)
{
    sim::DeviceOptions options;
    options.kind = sim::DriverKind::Windows11;
    options.windows11.sendPiece = 10;
    const int other = sim::addOutput(u"Windows 11", options);
    Output output(1);
    sim::stallOutput(other, true);
    EXPECT_EQ(output.beginLong({0xF0, 0xF7}), nullptr);
    sim::stallOutput(other, false);
    EXPECT_NE(output.beginLong({0xF0, 0xF7}), nullptr);
    sim::unplugOutput(other);
    EXPECT_EQ(output.sendShort(0xF8), MMSYSERR_NODRIVER);
    EXPECT_EQ(midiOutClose(output.handle), MMSYSERR_NOERROR);
    EXPECT_EQ(output.recorder.notices().size(), 3u); // open, done once, close
    sim::plugInOutput(other);
    EXPECT_EQ(Output(1).result, MMSYSERR_NOERROR);
}

TEST_F(OutputPort, RawCallsTheCallbackWithAnything)
{
    EXPECT_FALSE(sim::rawOutput(device, MOM_DONE, 0, 0));
    Output output;
    EXPECT_TRUE(sim::rawOutput(device, 0x123, 7, 0));
    EXPECT_EQ(output.recorder.notices(0x123).at(0).parameter1, 7u);
}

} // namespace
