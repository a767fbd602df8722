// The simulated Windows, as far as the tests that run on it do not pin it themselves. What clients
// of WinMM see is in tests/contract, and what the model does in tests/device.
#include "Sim.h"
#include "objbase.h"
#include "tests/contract/MidiRecorder.h"

#include <gtest/gtest.h>

namespace {

using contract::Bytes;
using contract::Input;
using contract::Output;

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

// ---- Events -------------------------------------------------------------------------------------

TEST_F(SimTest, SameNameOpensTheSameEventUntilItsLastHandleCloses)
{
    const HANDLE first = CreateEventW(nullptr, FALSE, FALSE, u"shared");
    const HANDLE second = CreateEventW(nullptr, FALSE, TRUE, u"shared");
    EXPECT_FALSE(sim::isSignalled(second));
    SetEvent(first);
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(sim::eventNames(), std::vector<std::u16string>{u"shared"});
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_TRUE(sim::eventNames().empty());
}

TEST_F(SimTest, NullAndClosedHandlesAreRefusedEverywhere)
{
    const HANDLE closed = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(closed));
    const HANDLE open = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_NE(open, closed);
    for (const HANDLE handle : {HANDLE(nullptr), closed}) {
        EXPECT_EQ(WaitForSingleObject(handle, INFINITE), WAIT_FAILED);
        EXPECT_FALSE(SetEvent(handle));
        EXPECT_FALSE(ResetEvent(handle));
        EXPECT_FALSE(CloseHandle(handle));
    }
    EXPECT_EQ(sim::inUse().handles, 1);
}

// ---- Memory -------------------------------------------------------------------------------------

TEST_F(SimDeathTest, AccessBesideOrAfterTheLifeOfAHeapBlockStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto* const block = static_cast<volatile unsigned char*>(HeapAlloc(GetProcessHeap(), 0, 100));
    EXPECT_EQ(block[99], sim::kMemoryFill);
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
    void* const place = reinterpret_cast<void*>(0x10000000);
    const auto allocate = [&] {
        return VirtualAlloc(place, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    };
    EXPECT_EQ(allocate(), place);
    EXPECT_EQ(allocate(), nullptr);
    MEMORY_BASIC_INFORMATION region;
    VirtualQuery(place, &region, sizeof region);
    EXPECT_EQ(region.State, MEM_COMMIT);
    EXPECT_TRUE(VirtualFree(place, 0, MEM_RELEASE));
    VirtualQuery(place, &region, sizeof region);
    EXPECT_EQ(region.State, MEM_FREE);
}

// ---- Failures, counters, hooks and the log ------------------------------------------------------

TEST_F(SimTest, TheLogHoldsTheFlagsOfAHeaderAsTheCallBegan)
{
    MIDIHDR header = {};
    header.dwFlags = MHDR_DONE;
    midiInAddBuffer(nullptr, &header, sizeof header);
    EXPECT_EQ(sim::calls().at(0).headerFlags, MHDR_DONE);
}

TEST_F(SimTest, CallsWhoseResultTheLibraryIgnoresFailAsWell)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    GUID guid;
    sim::failCall("CoCreateGuid");
    sim::failCall("WaitForMultipleObjects");
    EXPECT_EQ(CoCreateGuid(&guid), E_FAIL);
    EXPECT_EQ(WaitForMultipleObjects(1, &event, TRUE, INFINITE), WAIT_FAILED);
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
    sim::unplugInput(0);
    sim::unplugOutput(0);
    MIDIINCAPSW caps;
    EXPECT_EQ(midiInGetNumDevs(), 1u);
    EXPECT_EQ(midiInGetDevCapsW(0, &caps, sizeof caps), MMSYSERR_NODRIVER);
    EXPECT_EQ(Input().result, MMSYSERR_NODRIVER);
    EXPECT_EQ(Output().result, MMSYSERR_NODRIVER);
    input.close();
    sim::plugIn();
    EXPECT_EQ(Input().result, MMSYSERR_NOERROR);
    EXPECT_EQ(Output().result, MMSYSERR_NOERROR);
}

} // namespace
