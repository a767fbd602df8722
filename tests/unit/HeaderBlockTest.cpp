#include "winmidi/MIDIHeaderBlock.h"

#include "tests/unit/TestSupport.h"

#include <cstdint>

namespace {

class HeaderBlockTest : public SimTest
{
protected:
    void TearDown() override
    {
        block.freeData();
        block.freeHeaders();
        SimTest::TearDown();
    }

    MIDIHeaderBlock block{768};
};

bool liesLow(const MIDIHeaderBlock& block)
{
    return reinterpret_cast<std::uintptr_t>(block.end()) <= (std::uintptr_t(1) << 32);
}

TEST_F(HeaderBlockTest, HeadersAndDataComeFromTheHeapZeroFilled)
{
    ASSERT_TRUE(block.allocateHeaders());
    ASSERT_TRUE(block.allocateData());
    const std::vector<sim::Call> calls = sim::calls("HeapAlloc");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].arguments[0], DWORD(HEAP_ZERO_MEMORY));
    EXPECT_EQ(calls[0].arguments[1], 86016u);
    EXPECT_EQ(calls[1].arguments[0], DWORD(HEAP_ZERO_MEMORY));
    EXPECT_EQ(calls[1].arguments[1], 3145728u);
    EXPECT_TRUE(liesLow(block));
    block.freeData();
    block.freeHeaders();
    EXPECT_EQ(sim::calls("HeapFree").size(), 2u);
}

TEST_F(HeaderBlockTest, EveryHeaderHasItsSliceOfTheDataBlock)
{
    ASSERT_TRUE(block.allocateHeaders());
    ASSERT_TRUE(block.allocateData());
    const unsigned char* expected = block.buffer(block.begin());
    for (MIDIHDR& header : block) {
        EXPECT_EQ(static_cast<void*>(header.lpData), expected);
        EXPECT_EQ(header.dwBufferLength, 4096u);
        EXPECT_EQ(header.dwFlags, 0u);
        expected += 4096;
    }
    EXPECT_EQ(block.end() - block.begin(), 768);
}

TEST_F(HeaderBlockTest, BeforeAllocationThereIsNothing)
{
    EXPECT_EQ(block.begin(), block.end());
    EXPECT_FALSE(block.hasData());
    EXPECT_EQ(block.find(0), nullptr);
    block.freeData();
    block.freeHeaders();
}

TEST_F(HeaderBlockTest, FindsAHeaderByThe32BitsOfItsAddressAndNothingElse)
{
    ASSERT_TRUE(block.allocateHeaders());
    ASSERT_TRUE(block.allocateData());
    const auto address = [](const void* p) {
        return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(p));
    };
    EXPECT_EQ(block.find(address(block.begin())), block.begin());
    EXPECT_EQ(block.find(address(block.begin() + 767)), block.begin() + 767);
    EXPECT_EQ(block.find(address(block.end())), nullptr);
    EXPECT_EQ(block.find(address(block.begin()) - 112), nullptr);
    EXPECT_EQ(block.find(address(block.begin()) + 1), nullptr);
    EXPECT_EQ(block.find(address(block.begin()) + 56), nullptr);
    EXPECT_EQ(block.find(0), nullptr);
    EXPECT_EQ(block.find(0xFFFFFFFF), nullptr);
}

TEST_F(HeaderBlockTest, WithAHighHeapTheHeadersComeFromLowPages)
{
    sim::setHeapHigh(true);
    ASSERT_TRUE(block.allocateHeaders());
    ASSERT_TRUE(block.allocateData());
    EXPECT_TRUE(liesLow(block));
    EXPECT_EQ(sim::inUse().virtualBlocks, 1);
    EXPECT_EQ(sim::inUse().heapBlocks, 1); // the data block, which may lie anywhere
    for (const MIDIHDR& header : block)
        EXPECT_EQ(header.dwFlags, 0u);
    block.freeData();
    block.freeHeaders();
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(HeaderBlockTest, ALowRegionThatAnotherThreadTakesFirstIsPassedOver)
{
    sim::setHeapHigh(true);
    sim::failCall("VirtualAlloc", 1);
    ASSERT_TRUE(block.allocateHeaders());
    EXPECT_TRUE(liesLow(block));
    EXPECT_EQ(sim::callCount("VirtualAlloc"), 2u);
    block.freeHeaders();
}

TEST_F(HeaderBlockTest, WithNoLowAddressLeftThereAreNoHeaders)
{
    sim::setHeapHigh(true, true);
    EXPECT_FALSE(block.allocateHeaders());
    EXPECT_EQ(block.begin(), nullptr);
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

TEST_F(HeaderBlockTest, AnUnanswerableMemoryQueryEndsTheSearch)
{
    sim::setHeapHigh(true);
    sim::failCall("VirtualQuery", 1);
    EXPECT_FALSE(block.allocateHeaders());
}

TEST_F(HeaderBlockTest, ARefusedAllocationIsReported)
{
    sim::failCall("HeapAlloc", 1);
    EXPECT_FALSE(block.allocateHeaders());
    ASSERT_TRUE(block.allocateHeaders());
    sim::failCall("HeapAlloc", 1);
    EXPECT_FALSE(block.allocateData());
    EXPECT_FALSE(block.hasData());
    EXPECT_EQ(block.find(static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(block.begin()))),
              nullptr);
    block.freeHeaders();
}

TEST_F(HeaderBlockTest, FreesWhatIsLeftWithTheObject)
{
    {
        MIDIHeaderBlock scoped(8);
        ASSERT_TRUE(scoped.allocateHeaders());
        ASSERT_TRUE(scoped.allocateData());
    }
    EXPECT_EQ(sim::inUse(), sim::Resources());
}

} // namespace
