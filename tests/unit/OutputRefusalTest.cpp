#include "tests/unit/TestSupport.h"

namespace {

/// A device that refuses, forgets or keeps what it is sent, on a scripted clock.
class OutputRefusalTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        sim::useVirtualTime();
        ASSERT_NE(transport->openOutput(1), nullptr);
        sim::clearCalls();
    }

    bool send(const Bytes& data)
    {
        return transport->outputData(static_cast<int>(data.size()), data.data());
    }

    std::vector<std::size_t> chunkSizes() const
    {
        std::vector<std::size_t> sizes;
        for (const sim::Sent& sent : sim::sent(output))
            sizes.push_back(sent.bytes.size());
        return sizes;
    }

    void completeAll()
    {
        while (sim::completeOutput(output)) {
        }
    }
};

using Sizes = std::vector<std::size_t>;

const Bytes kNote = {0x90, 0x3C, 0x64};

TEST_F(OutputRefusalTest, WhateverFlagsARefusalLeavesTheHeaderIsFree)
{
    for (const char* const function : {"midiOutPrepareHeader", "midiOutLongMsg"}) {
        SCOPED_TRACE(function);
        MIDIHDR* refused = nullptr;
        sim::failCall(function);
        sim::onCall(function, [&](const sim::Call& call) {
            sim::clearHooks();
            refused = call.header;
            refused->dwFlags |= MHDR_PREPARED | 0x100;
        });
        EXPECT_FALSE(send(kNote));
        ASSERT_NE(refused, nullptr);
        EXPECT_EQ(refused->dwFlags, 0u);
        EXPECT_TRUE(send(kNote));
        EXPECT_EQ(sim::sent(output).back().header, refused) << "the first one in the pool";
    }
}

TEST_F(OutputRefusalTest, AHeaderThatADriverSpoiledIsSentWithItsBufferAgain)
{
    EXPECT_TRUE(send(kNote));
    MIDIHDR& header = *device().outHeaders.begin();
    char* const own = header.lpData;
    header.lpData = nullptr;
    EXPECT_TRUE(send(kNote));
    EXPECT_EQ(header.lpData, own);
    EXPECT_EQ(sim::sent(output).back().bytes, kNote);
}

TEST_F(OutputRefusalTest, AWaitThatFailsEndsTheWaitingForThatChunk)
{
    sim::setCompletion(output, sim::Completion::Manual);
    sim::failCall("WaitForSingleObject");
    sim::onCall("WaitForSingleObject", [&](const sim::Call&) {
        if (sim::calls("WaitForSingleObject").size() > 10)
            completeAll(); // or the sender would wait without end
    });
    EXPECT_TRUE(send(Bytes(4097, 0x11)));
    EXPECT_EQ(sim::inUse().outputBuffers, 2) << "neither chunk is done yet";
    EXPECT_EQ(chunkSizes(), (Sizes{4096, 1}));
    completeAll();
}

TEST_F(OutputRefusalTest, AChunkWhoseSignalIsLostBehindAnotherChunksIsSeenToBeDone)
{
    sim::setCompletion(output, sim::Completion::Manual);
    bool result = false;
    std::thread sender([&] { result = send(Bytes(4097, 0x11)); });
    while (sim::calls("WaitForSingleObject").empty())
        std::this_thread::yield();
    // The callback of the chunk that the header had before, late.
    const MIDIHDR* const header = sim::sent(output).at(0).header;
    Access::midiOutProc(MOM_DONE, static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(header)));
    while (sim::calls("WaitForSingleObject").size() < 2)
        std::this_thread::yield();
    sim::failCall("SetEvent");
    sim::completeOutput(output);
    sender.join();
    EXPECT_TRUE(result);
    completeAll();
}

TEST_F(OutputRefusalTest, TheHandleIsCurrentUntilTheDeviceIsClosed)
{
    void* const handle = transport->openOutput(0);
    void* atClose = nullptr;
    sim::onCall("midiOutClose", [&](const sim::Call&) { atClose = transport->openOutput(0); });
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_EQ(atClose, handle);
    EXPECT_EQ(transport->openOutput(0), nullptr);
}

TEST_F(OutputRefusalTest, AChannelMessageIsOneWordOfStatusAndDataBytes)
{
    unsigned char data[] = {0x3C, 0x64};
    EXPECT_TRUE(Access::outputData(*transport, 2, data, 0x90));
    EXPECT_TRUE(Access::outputData(*transport, 1, data, 0xC5));
    const std::vector<sim::Call> calls = sim::calls("midiOutShortMsg");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].arguments[0], 0x643C90u);
    EXPECT_EQ(calls[1].arguments[0], 0x3CC5u);
    EXPECT_EQ(sim::callNames(), std::vector<std::string>(2, "midiOutShortMsg"));
}

} // namespace
