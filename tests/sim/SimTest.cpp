// The simulated Windows, as far as the tests that run on it do not pin it themselves. What clients
// of WinMM see is in tests/contract, and what the model does in tests/device.
#include "Sim.h"
#include "objbase.h"
#include "tests/contract/MidiRecorder.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using contract::Bytes;
using contract::Input;
using contract::Output;
using Names = std::vector<std::string>;

struct SimTest : testing::Test
{
    SimTest() { sim::reset(); }
    ~SimTest() override { sim::reset(); }
};
using SimDeathTest = SimTest;

bool liesLow(const void* memory)
{
    return reinterpret_cast<std::uintptr_t>(memory) < std::uintptr_t(1) << 32;
}

// ---- Events and time ----------------------------------------------------------------------------

TEST_F(SimTest, AnAutoResetEventReleasesOneWaitPerSignal)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 1), WAIT_TIMEOUT);
}

TEST_F(SimTest, SameNameOpensTheSameEventUntilItsLastHandleCloses)
{
    const HANDLE first = CreateEventW(nullptr, FALSE, FALSE, u"shared");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const HANDLE second = CreateEventW(nullptr, FALSE, TRUE, u"shared");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(first, second);
    EXPECT_FALSE(sim::isSignalled(second));
    SetEvent(first);
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(sim::eventNames(), std::vector<std::u16string>{u"shared"});
    EXPECT_TRUE(CloseHandle(second));
    CreateEventW(nullptr, FALSE, FALSE, u"shared");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
}

TEST_F(SimTest, NullAndClosedHandlesAreRefusedEverywhere)
{
    const HANDLE closed = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(closed));
    const HANDLE open = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_NE(open, closed);
    for (const HANDLE handle : {HANDLE(nullptr), closed}) {
        EXPECT_EQ(WaitForSingleObject(handle, INFINITE), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_FALSE(SetEvent(handle));
        EXPECT_FALSE(ResetEvent(handle));
        EXPECT_FALSE(CloseHandle(handle));
    }
    EXPECT_EQ(sim::inUse().handles, 1);
}

TEST_F(SimTest, RealTimeAgreesWithTheClock)
{
    const DWORD begin = timeGetTime();
    Sleep(20);
    const DWORD passed = timeGetTime() - begin;
    EXPECT_GE(passed, 19u);
    EXPECT_LT(passed, 20000u);
}

// ---- Memory -------------------------------------------------------------------------------------

TEST_F(SimTest, TheHeapIsZeroedOnRequestAndGivenBack)
{
    for (const DWORD flags : {DWORD(0), HEAP_ZERO_MEMORY}) {
        auto* const block = static_cast<unsigned char*>(HeapAlloc(GetProcessHeap(), flags, 86016));
        ASSERT_TRUE(liesLow(block + 86016));
        EXPECT_EQ(std::count(block, block + 86016, flags ? 0 : sim::kMemoryFill), 86016);
        EXPECT_EQ(sim::inUse().heapBlocks, 1);
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, block));
    }
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(SimDeathTest, AccessBesideOrAfterTheLifeOfAHeapBlockStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto* const block = static_cast<volatile unsigned char*>(HeapAlloc(GetProcessHeap(), 0, 100));
    const auto free = [&] { HeapFree(GetProcessHeap(), 0, const_cast<unsigned char*>(block)); };
#ifdef LUMORA_ADDRESS_SANITIZER
    EXPECT_DEATH(block[100] = 1, "");
    EXPECT_DEATH(block[-1] = 1, "");
#endif
    EXPECT_DEATH((free(), block[0] = 1), "");
    EXPECT_DEATH((free(), free()), "not a live heap block");
}

TEST_F(SimTest, VirtualAllocGivesOnlyWhatIsFree)
{
    MEMORY_BASIC_INFORMATION region{};
    do {
        const auto next = reinterpret_cast<std::uintptr_t>(region.BaseAddress) + region.RegionSize;
        ASSERT_NE(VirtualQuery(reinterpret_cast<void*>(next), &region, sizeof region), 0u);
    } while (region.State != MEM_FREE || region.BaseAddress == nullptr ||
             reinterpret_cast<std::uintptr_t>(region.BaseAddress) % 65536 != 0);
    void* const place = region.BaseAddress;
    const auto allocate = [&] {
        return VirtualAlloc(place, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    };
    EXPECT_EQ(allocate(), place);
    EXPECT_EQ(allocate(), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
    VirtualQuery(place, &region, sizeof region);
    EXPECT_EQ(region.State, MEM_COMMIT);
    EXPECT_TRUE(VirtualFree(place, 0, MEM_RELEASE));
    VirtualQuery(place, &region, sizeof region);
    EXPECT_EQ(region.State, MEM_FREE);
}

// ---- Failures, counters, hooks and the log ------------------------------------------------------

TEST_F(SimTest, EachKindOfFunctionFailsInItsOwnWay)
{
    for (const char* name : {"HeapAlloc", "SetEvent", "CoCreateGuid", "WaitForSingleObject",
                             "midiInOpen", "midiInGetNumDevs"})
        sim::failCall(name);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    GUID guid;
    HMIDIIN handle = nullptr;
    EXPECT_FALSE(HeapAlloc(GetProcessHeap(), 0, 8));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_FALSE(SetEvent(event));
    EXPECT_FALSE(sim::isSignalled(event));
    EXPECT_TRUE(FAILED(CoCreateGuid(&guid)));
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_FAILED);
    EXPECT_EQ(midiInOpen(&handle, 0, 0, 0, CALLBACK_NULL), MMSYSERR_ERROR);
    EXPECT_EQ(midiInGetNumDevs(), 0u);
    EXPECT_TRUE(SetEvent(event)); // only the call ordered to fail does
}

TEST_F(SimTest, TheLogHoldsCallsInOrderUntilItIsClearedOrSwitchedOff)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    WaitForSingleObject(event, 7);
    SetEvent(event);
    EXPECT_EQ(sim::callNames(), (Names{"CreateEventW", "WaitForSingleObject", "SetEvent"}));
    const sim::Call wait = sim::calls("WaitForSingleObject").at(0);
    EXPECT_EQ(wait.handle, reinterpret_cast<std::uintptr_t>(event));
    EXPECT_EQ(wait.arguments[0], 7u);
    EXPECT_TRUE(wait.returned);
    EXPECT_EQ(wait.result, WAIT_OBJECT_0);

    sim::logCalls(false);
    SetEvent(event);
    EXPECT_EQ(sim::calls("SetEvent").size(), 1u);
    EXPECT_EQ(sim::callCount("SetEvent"), 2u);
    sim::logCalls(true);
    sim::clearCalls();
    MIDIHDR header = {};
    header.dwFlags = MHDR_DONE;
    midiInAddBuffer(nullptr, &header, sizeof header);
    EXPECT_EQ(sim::callNames(), Names{"midiInAddBuffer"});
    EXPECT_EQ(sim::calls()[0].header, &header);
    EXPECT_EQ(sim::calls()[0].headerFlags, MHDR_DONE);
}

TEST_F(SimTest, ResetGivesTheFreshState)
{
    sim::addOutput(u"Out");
    sim::useVirtualTime(1);
    sim::failCall("CreateEventW", 1, 0, sim::kAllFromThere);
    sim::onCall("CreateEventW", [](const sim::Call&) { FAIL(); });
    sim::setHeapHigh(true);
    EXPECT_FALSE(liesLow(HeapAlloc(GetProcessHeap(), 0, 16)));
    HMIDIOUT handle = nullptr;
    midiOutOpen(&handle, 0, 0, 0, CALLBACK_NULL);
    sim::reset();
    EXPECT_EQ(sim::inUse(), sim::Resources());
    EXPECT_TRUE(sim::calls().empty());
    EXPECT_EQ(sim::callCount("midiOutOpen"), 0u);
    EXPECT_EQ(midiOutGetNumDevs(), 0u);
    EXPECT_NE(timeGetTime(), 1u);
    EXPECT_TRUE(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    EXPECT_TRUE(liesLow(HeapAlloc(GetProcessHeap(), 0, 16)));
}

TEST_F(SimDeathTest, MistakesOfATestStopIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(sim::failCall("midiInOpne"), "no simulated function has the name midiInOpne");
    EXPECT_DEATH(sim::failCall("Sleep"), "cannot fail");
    EXPECT_DEATH(sim::shortMessage(3, 0), "there is no device 3");
    EXPECT_DEATH(CreateEventW(nullptr, TRUE, FALSE, nullptr), "no manual-reset events");
}

// ---- Devices ------------------------------------------------------------------------------------

TEST_F(SimTest, EveryClientOfAnInputGetsItsCopy)
{
    sim::addInput(u"In");
    sim::setDriverKind(sim::DriverKind::Windows11); // any number of clients
    Input clients[2];
    for (Input& client : clients) {
        client.giveBuffers(1, 16);
        client.start();
    }
    EXPECT_TRUE(sim::shortMessage(0, 0xFE));
    EXPECT_EQ(sim::sysEx(0, "abc", 3), 3u);
    for (Input& client : clients) {
        EXPECT_EQ(client.recorder.waitForShort(1), std::vector<DWORD>{0xFE});
        EXPECT_EQ(client.recorder.waitForLong(3), (Bytes{'a', 'b', 'c'}));
    }
}

TEST_F(SimTest, NoMoreIsWrittenToABufferThanFits)
{
    sim::addInput(u"In");
    Input input;
    contract::Buffer* const buffer = input.giveBuffers(1, 4)[0];
    EXPECT_EQ(sim::returnBuffer(0, 2, "abcdefgh", 8), buffer->header());
    EXPECT_EQ(input.recorder.waitForLong(2), (Bytes{'a', 'b'}));
}

TEST_F(SimTest, AnUnpluggedDeviceKeepsItsPlaceAndOpensAnewWhenItIsBack)
{
    sim::addInput(u"In");
    sim::addOutput(u"Out");
    Input input;
    input.giveBuffers(1, 16);
    input.start();
    sim::unplugInput(0);
    sim::unplugOutput(0);
    MIDIINCAPSW caps;
    EXPECT_EQ(midiInGetNumDevs(), 1u);
    EXPECT_EQ(midiInGetDevCapsW(0, &caps, sizeof caps), MMSYSERR_NODRIVER);
    EXPECT_EQ(Input().result, MMSYSERR_NODRIVER);
    EXPECT_EQ(Output().result, MMSYSERR_NODRIVER);
    // Of all kinds but Windows 11's the port still serves its client.
    EXPECT_EQ(sim::sysEx(0, "abc", 3), 0u);
    EXPECT_EQ(input.reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInClose(input.handle), MMSYSERR_NOERROR);
    sim::plugIn();
    EXPECT_EQ(Input().result, MMSYSERR_NOERROR);
    EXPECT_EQ(Output().result, MMSYSERR_NOERROR);
}

} // namespace
