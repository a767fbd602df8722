#include "tests/unit/TestSupport.h"

#include <cstdint>

namespace {

/// Sends on a scripted clock, so that pauses take no time.
class OutputTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        sim::useVirtualTime(5000);
        ASSERT_NE(transport->openOutput(1), nullptr);
        sim::clearCalls();
    }

    static Bytes bytes(int count)
    {
        Bytes result(static_cast<std::size_t>(count));
        for (std::size_t i = 0; i < result.size(); ++i)
            result[i] = static_cast<unsigned char>(i * 31 % 251);
        return result;
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

    Bytes allSent() const
    {
        Bytes all;
        for (const sim::Sent& sent : sim::sent(output))
            all.insert(all.end(), sent.bytes.begin(), sent.bytes.end());
        return all;
    }

    static std::size_t waits() { return sim::calls("WaitForSingleObject").size(); }
};

using Sizes = std::vector<std::size_t>;

TEST_F(OutputTest, NothingIsSentForALengthBelowOneOrWithoutData)
{
    const unsigned char byte = 0;
    EXPECT_FALSE(transport->outputData(0, &byte));
    EXPECT_FALSE(transport->outputData(-1, &byte));
    EXPECT_FALSE(transport->outputData(INT_MIN, &byte));
    EXPECT_FALSE(transport->outputData(3, nullptr));
    EXPECT_TRUE(sim::callNames().empty());
}

TEST_F(OutputTest, AShortMessageGoesOutAsALongOneWithoutAWait)
{
    EXPECT_TRUE(send({0x90, 0x3C, 0x64}));
    const std::vector<sim::Sent> sent = sim::sent(output);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_FALSE(sent[0].isShort);
    EXPECT_EQ(sent[0].bytes, Bytes({0x90, 0x3C, 0x64}));
    EXPECT_EQ(sim::callNames(),
              (std::vector<std::string>{"midiOutPrepareHeader", "midiOutLongMsg"}));
    EXPECT_EQ(sent[0].header->dwUser, 0u);
}

TEST_F(OutputTest, OneChunkIsNotWaitedFor)
{
    EXPECT_TRUE(send(bytes(4096)));
    EXPECT_EQ(chunkSizes(), Sizes{4096});
    EXPECT_EQ(waits(), 0u);
    EXPECT_TRUE(sim::calls("Sleep").empty());
}

TEST_F(OutputTest, OneByteMoreIsASecondChunkAfterAWaitAndAPause)
{
    EXPECT_TRUE(send(bytes(4097)));
    const std::vector<sim::Sent> sent = sim::sent(output);
    ASSERT_EQ(chunkSizes(), (Sizes{4096, 1}));
    EXPECT_EQ(allSent(), bytes(4097));
    EXPECT_EQ(waits(), 1u);
    EXPECT_GE(sent[1].time - sent[0].time, 100u);
}

TEST_F(OutputTest, TenThousandBytesGoOutInThreeChunksWithTwoPauses)
{
    SCOPED_TRACE("An instrument that is fed faster, or in larger pieces, loses parts of dumps.");
    EXPECT_TRUE(send(bytes(10000)));
    const std::vector<sim::Sent> sent = sim::sent(output);
    ASSERT_EQ(chunkSizes(), (Sizes{4096, 4096, 1808}));
    EXPECT_EQ(allSent(), bytes(10000));
    EXPECT_EQ(waits(), 2u);
    EXPECT_EQ(sent[1].time - sent[0].time, 100u);
    EXPECT_EQ(sent[2].time - sent[1].time, 100u);
}

TEST_F(OutputTest, TheStepsOfAWaitedChunkComeInOrder)
{
    EXPECT_TRUE(send(bytes(4097)));
    EXPECT_EQ(sim::callNames(),
              (std::vector<std::string>{"midiOutPrepareHeader", "midiOutLongMsg", "SetEvent",
                                        "WaitForSingleObject", "timeGetTime", "Sleep",
                                        "timeGetTime", "midiOutUnprepareHeader",
                                        "midiOutPrepareHeader", "midiOutLongMsg"}));
    EXPECT_EQ(sim::calls("Sleep")[0].arguments[0], 100u);
}

TEST_F(OutputTest, APauseThatEndsEarlyIsSleptToItsEnd)
{
    sim::setSleepError(-30);
    EXPECT_TRUE(send(bytes(4097)));
    const std::vector<sim::Sent> sent = sim::sent(output);
    EXPECT_GE(sent[1].time - sent[0].time, 100u);
    const std::vector<sim::Call> sleeps = sim::calls("Sleep");
    ASSERT_GE(sleeps.size(), 2u);
    EXPECT_EQ(sleeps[0].arguments[0], 100u);
    EXPECT_EQ(sleeps[1].arguments[0], 30u);
}

TEST_F(OutputTest, APauseAcrossTheClocksWrapAroundIsNoLonger)
{
    sim::useVirtualTime(0xFFFFFFFFu - 50);
    EXPECT_TRUE(send(bytes(4097)));
    EXPECT_EQ(sim::calls("Sleep").size(), 1u);
    EXPECT_EQ(timeGetTime(), 49u);
}

TEST_F(OutputTest, AMinuteOfPacingLosesNoByte)
{
    const Bytes data = bytes(4096 * 600 + 5);
    sim::logCalls(false);
    EXPECT_TRUE(send(data));
    EXPECT_EQ(allSent(), data);
    EXPECT_EQ(timeGetTime(), 5000u + 600 * 100);
}

TEST_F(OutputTest, TheSendersBytesAreCopied)
{
    sim::setCompletion(output, sim::Completion::Manual);
    Bytes data = {0xF0, 1, 0xF7};
    EXPECT_TRUE(send(data));
    const MIDIHDR* const header = sim::sent(output)[0].header;
    EXPECT_NE(static_cast<const void*>(header->lpData), data.data());
    data[1] = 99;
    EXPECT_EQ(static_cast<unsigned char>(header->lpData[1]), 1);
    while (sim::completeOutput(output)) {
    }
}

TEST_F(OutputTest, WithoutAnOpenPortSendingFails)
{
    transport->closeOutput();
    EXPECT_FALSE(send({0x90, 1, 2}));
    EXPECT_FALSE(send(bytes(5000)));
    const unsigned char data[] = {1, 2};
    EXPECT_FALSE(Access::outputShortData(*transport, 2, data, 0x90));
}

TEST_F(OutputTest, ARefusedPrepareFreesTheHeader)
{
    sim::failCall("midiOutPrepareHeader", 1);
    EXPECT_FALSE(send({0x90, 1, 2}));
    EXPECT_EQ(device().outHeaders.begin()->dwFlags, 0u);
    EXPECT_EQ(sim::callCount("midiOutLongMsg"), 0u);
    EXPECT_TRUE(send({0x90, 1, 2}));
    EXPECT_EQ(sim::sent(output)[0].header, device().outHeaders.begin());
}

TEST_F(OutputTest, ARefusedMessageUnpreparesAndFreesTheHeader)
{
    sim::failCall("midiOutLongMsg", 1);
    EXPECT_FALSE(send({0x90, 1, 2}));
    EXPECT_EQ(sim::calls("midiOutUnprepareHeader").size(), 1u);
    EXPECT_EQ(device().outHeaders.begin()->dwFlags, 0u);
}

TEST_F(OutputTest, EveryChunkOfADumpCanFailAndNoneBehindItIsSent)
{
    for (const char* function : {"midiOutPrepareHeader", "midiOutLongMsg"}) {
        for (unsigned chunk = 1; chunk <= 5; ++chunk) {
            SCOPED_TRACE(std::string(function) + " " + std::to_string(chunk));
            sim::clearSent(output);
            sim::failCall(function, chunk);
            EXPECT_FALSE(send(bytes(5 * 4096)));
            EXPECT_EQ(sim::sent(output).size(), std::size_t(chunk) - 1);
            EXPECT_FALSE(sim::isSignalled(device().doneEvent));
        }
    }
}

TEST_F(OutputTest, HeadersAreTakenInOrderAndADoneOneIsUnpreparedFirst)
{
    sim::setCompletion(output, sim::Completion::Manual);
    for (unsigned char i = 0; i < 8; ++i)
        EXPECT_TRUE(send({0x90, i, 1}));
    const std::vector<sim::Sent> sent = sim::sent(output);
    for (std::ptrdiff_t i = 0; i < 8; ++i)
        EXPECT_EQ(sent[std::size_t(i)].header, device().outHeaders.begin() + i);
    EXPECT_EQ(sim::inUse().outputBuffers, 8);

    sim::completeOutput(output);
    sim::completeOutput(output);
    sim::clearCalls();
    EXPECT_TRUE(send({0x90, 9, 1}));
    EXPECT_EQ(sim::calls("midiOutUnprepareHeader").at(0).header, sent[0].header);
    EXPECT_EQ(sim::sent(output).back().header, device().outHeaders.begin());
    while (sim::completeOutput(output)) {
    }
}

TEST_F(OutputTest, WithAllHeadersBusyASendYieldsUntilOneIsDone)
{
    sim::setCompletion(output, sim::Completion::Manual);
    for (unsigned char i = 0; i < 8; ++i)
        ASSERT_TRUE(send({0x90, i, 1}));
    int yields = 0;
    sim::onCall("Sleep", [&](const sim::Call& call) {
        EXPECT_EQ(call.arguments[0], 0u);
        if (++yields == 5)
            sim::completeOutput(output);
    });
    EXPECT_TRUE(send({0x90, 9, 1}));
    EXPECT_EQ(yields, 5);
    sim::clearHooks();
    while (sim::completeOutput(output)) {
    }
}

TEST_F(OutputTest, AWaitedChunkBlocksUntilItsOwnCompletion)
{
    sim::setCompletion(output, sim::Completion::Manual);
    std::atomic<bool> returned{false};
    const Bytes data = bytes(4097);
    std::thread sender([&] {
        EXPECT_TRUE(send(data));
        returned = true;
    });
    while (sim::inUse().outputBuffers == 0)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned);
    EXPECT_EQ(sim::sent(output).size(), 1u);
    sim::completeOutput(output);
    sender.join();
    EXPECT_EQ(chunkSizes(), (Sizes{4096, 1}));
    sim::completeOutput(output);
    EXPECT_FALSE(sim::isSignalled(device().doneEvent)) << "the last chunk signals nobody";
}

TEST_F(OutputTest, ALateCallbackOfTheHeadersLastChunkDoesNotEndTheWaitForTheNext)
{
    EXPECT_TRUE(send({0x90, 1, 2})); // header 0
    sim::clearSent(output);
    sim::setCompletion(output, sim::Completion::Manual);
    const Bytes data = bytes(4096 + 1);
    std::thread sender([&] { EXPECT_TRUE(send(data)); });
    while (sim::inUse().outputBuffers == 0)
        std::this_thread::yield();
    const auto header = reinterpret_cast<std::uintptr_t>(device().outHeaders.begin());
    Access::midiOutProc(MOM_DONE, static_cast<DWORD>(header));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(chunkSizes(), Sizes{4096});
    sim::completeOutput(output);
    sender.join();
    EXPECT_EQ(chunkSizes(), (Sizes{4096, 1}));
    while (sim::completeOutput(output)) {
    }
    EXPECT_FALSE(sim::isSignalled(device().doneEvent)) << "the next dump would not be waited for";
}

TEST_F(OutputTest, TheRestOfADumpIsNotSentToAnotherPort)
{
    const int second = sim::addOutput(u"Second");
    sim::onCall("Sleep", [&](const sim::Call&) {
        sim::clearHooks();
        EXPECT_EQ(transport->closeOutput(), 0);
        EXPECT_NE(transport->openOutput(2), nullptr);
    });
    EXPECT_FALSE(send(bytes(3 * 4096)));
    EXPECT_EQ(chunkSizes(), Sizes{4096});
    EXPECT_TRUE(sim::sent(second).empty());
}

TEST_F(OutputTest, ClosingThePortReleasesASenderThatWaits)
{
    sim::setCompletion(output, sim::Completion::Manual);
    const Bytes data = bytes(3 * 4096);
    bool result = true;
    // The port is closed long before the pause behind a chunk ends, and its closing has time enough
    // for the sender to leave.
    std::atomic<bool> closed{false};
    sim::onCall("Sleep", [&](const sim::Call& call) {
        while (call.arguments[0] >= 100 ? !closed : device().senders.any())
            std::this_thread::yield();
    });
    std::thread sender([&] { result = send(data); });
    while (sim::inUse().outputBuffers == 0)
        std::this_thread::yield();
    EXPECT_EQ(transport->closeOutput(), 0);
    closed = true;
    sender.join();
    EXPECT_FALSE(result);
}

TEST_F(OutputTest, TheCallbackSignalsOnlyAWaitingHeadersEventAndOnlyWhenDone)
{
    MIDIHDR* const header = device().outHeaders.begin();
    const DWORD address = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(header));
    header->dwUser = reinterpret_cast<DWORD_PTR>(device().doneEvent);
    Access::midiOutProc(MOM_OPEN, address);
    Access::midiOutProc(MOM_CLOSE, address);
    Access::midiOutProc(MOM_DONE + 1, address);
    EXPECT_FALSE(sim::isSignalled(device().doneEvent));
    Access::midiOutProc(MOM_DONE, address);
    EXPECT_TRUE(sim::isSignalled(device().doneEvent));
    header->dwUser = 0;
    sim::clearCalls();
    Access::midiOutProc(MOM_DONE, address);
    Access::midiOutProc(MOM_DONE, 0);
    EXPECT_TRUE(sim::callNames().empty());
    WaitForSingleObject(device().doneEvent, 0);
}

TEST_F(OutputTest, TheShortSenderPacksStatusAndDataBytes)
{
    const unsigned char data[] = {0x3C, 0x64};
    EXPECT_TRUE(Access::outputShortData(*transport, 2, data, 0x90));
    EXPECT_TRUE(Access::outputShortData(*transport, 1, data, 0xC5));
    EXPECT_TRUE(Access::outputShortData(*transport, 0, data, 0x80));
    const std::vector<sim::Sent> sent = sim::sent(output);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_TRUE(sent[0].isShort);
    EXPECT_EQ(sent[0].bytes, Bytes({0x90, 0x3C, 0x64, 0}));
    EXPECT_EQ(sent[1].bytes, Bytes({0xC5, 0x3C, 0, 0}));
    EXPECT_EQ(sent[2].bytes, Bytes({0x80, 0x3C, 0x64, 0}));
    sim::failCall("midiOutShortMsg", 1);
    EXPECT_FALSE(Access::outputShortData(*transport, 2, data, 0x90));
}

TEST_F(OutputTest, AChannelStatusIsSentShortAndEveryOtherLong)
{
    unsigned char data[] = {1, 2};
    for (const unsigned int status : {0x80u, 0x90u, 0xEFu}) {
        EXPECT_TRUE(Access::outputData(*transport, 2, data, status));
        EXPECT_TRUE(sim::sent(output).back().isShort) << status;
    }
    for (const unsigned int status : {0x01u, 0x7Fu, 0xF0u, 0xFFu}) {
        EXPECT_TRUE(Access::outputData(*transport, 2, data, status));
        EXPECT_FALSE(sim::sent(output).back().isShort) << status;
        EXPECT_EQ(sim::sent(output).back().bytes,
                  Bytes({static_cast<unsigned char>(status), 1, 2}));
    }
    EXPECT_TRUE(Access::outputData(*transport, 2, data, 0));
    EXPECT_EQ(sim::sent(output).back().bytes, Bytes({1, 2}));
    EXPECT_TRUE(Access::outputLongData(*transport, 2, data, 0x90));
    EXPECT_EQ(sim::sent(output).back().bytes, Bytes({0x90, 1, 2}));
}

TEST_F(OutputTest, AStatusInFrontTakesOneByteOfTheFirstChunkOnly)
{
    Bytes data = bytes(4096);
    EXPECT_TRUE(Access::outputData(*transport, 4096, data.data(), 0xF0));
    const std::vector<sim::Sent> sent = sim::sent(output);
    ASSERT_EQ(chunkSizes(), (Sizes{4096, 1}));
    Bytes expected = {0xF0};
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_EQ(allSent(), expected);
    EXPECT_GE(sent[1].time - sent[0].time, 100u);

    sim::clearSent(output);
    data = bytes(10000);
    EXPECT_TRUE(Access::outputLongData(*transport, 10000, data.data(), 0xF0));
    EXPECT_EQ(chunkSizes(), (Sizes{4096, 4096, 1809}));
    Bytes all = allSent();
    all.erase(all.begin());
    EXPECT_EQ(all, data);
}

TEST_F(OutputTest, AStatusAloneIsAMessage)
{
    unsigned char data = 0;
    EXPECT_TRUE(Access::outputData(*transport, 0, &data, 0xF8));
    EXPECT_EQ(sim::sent(output).back().bytes, Bytes({0xF8}));
    EXPECT_TRUE(Access::outputLongData(*transport, 0, nullptr, 0xFA));
    EXPECT_EQ(sim::sent(output).back().bytes, Bytes({0xFA}));
    EXPECT_FALSE(Access::outputData(*transport, -1, &data, 0xF8));
    EXPECT_FALSE(Access::outputData(*transport, 0, &data, 0));
    EXPECT_FALSE(Access::outputLongData(*transport, INT_MIN, &data, 0xF8));
}

TEST_F(OutputTest, HeadersThatADeviceKeptAreFreeAfterTheClose)
{
    sim::onCall("midiOutClose", [this](const sim::Call&) {
        for (MIDIHDR& header : device().outHeaders)
            header.dwFlags = MHDR_PREPARED | MHDR_INQUEUE;
    });
    EXPECT_EQ(transport->closeOutput(), 0);
    for (const MIDIHDR& header : device().outHeaders)
        EXPECT_EQ(header.dwFlags, 0u);
}

} // namespace
