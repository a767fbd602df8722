#include "tests/unit/OutOfMemory.h"
#include "tests/unit/TestSupport.h"

namespace {

class FramingTest : public DeviceTest
{
protected:
    int feed(const Bytes& chunk, bool strictStart = true)
    {
        return Access::frame(*transport, chunk, strictStart);
    }

    std::vector<Bytes> delivered() const
    {
        std::vector<Bytes> bytes;
        for (const Received& message : recorder.received())
            bytes.push_back(message.bytes);
        return bytes;
    }

    bool assembling() { return Access::observerBlock(*transport).pendingSysEx != nullptr; }
};

using Messages = std::vector<Bytes>;

TEST_F(FramingTest, MessageLengthFollowsTheHighFourBitsOfTheStatus)
{
    for (int status = 0; status < 256; ++status) {
        const int high = status >> 4;
        const int expected = high < 8 || high == 15 ? 1 : high == 12 || high == 13 ? 2 : 3;
        EXPECT_EQ(transport->midi_msg_length(static_cast<unsigned char>(status)), expected)
            << status;
    }
    EXPECT_EQ(transport->midi_msg_length(0xF2), 1);
    EXPECT_EQ(transport->midi_msg_length(0xC5), 2);
    EXPECT_EQ(transport->midi_msg_length(0x40), 1);
}

TEST_F(FramingTest, ASysExInOneChunkIsDeliveredFromTheCallersBytes)
{
    const Bytes chunk = {0xF0, 0x7D, 0x10, 0xF7};
    EXPECT_EQ(feed(chunk), 4);
    const std::vector<Received> received = recorder.received();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].bytes, chunk);
    EXPECT_EQ(received[0].data, chunk.data());
    EXPECT_TRUE(received[0].strictStart);
    EXPECT_FALSE(received[0].spare);
}

TEST_F(FramingTest, ASysExInPiecesIsDeliveredOnceAfterTheLast)
{
    EXPECT_EQ(feed({0xF0, 0x01, 0x02}), 3);
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_EQ(feed({0x03, 0xF7}), 2);
    EXPECT_EQ(delivered(), Messages({{0xF0, 0x01, 0x02, 0x03, 0xF7}}));
    EXPECT_FALSE(assembling());
}

TEST_F(FramingTest, AChunkThatCannotStartASysExIsDroppedWhileIdle)
{
    EXPECT_EQ(feed({0x01, 0x02, 0xF7}), 3);
    EXPECT_EQ(feed({0x01, 0x02}), 2);
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_FALSE(assembling());
}

TEST_F(FramingTest, WithoutStrictStartAnyChunkMayBeginASysEx)
{
    feed({0x01, 0x02, 0xF7}, false);
    EXPECT_EQ(delivered(), Messages({{0x01, 0x02, 0xF7}}));
    EXPECT_FALSE(recorder.received()[0].strictStart);

    feed({0x05}, false);
    feed({0x06, 0xF7}, false);
    EXPECT_EQ(delivered()[1], Bytes({0x05, 0x06, 0xF7}));
    EXPECT_FALSE(recorder.received()[1].strictStart);
}

TEST_F(FramingTest, TheFlagOfTheLastPieceIsTheOneThatObserversSee)
{
    feed({0xF0, 0x01}, true);
    feed({0xF7}, false);
    EXPECT_FALSE(recorder.received().at(0).strictStart);
}

TEST_F(FramingTest, RealtimeAndCommonMessagesAreDroppedWhileIdle)
{
    for (int status = 0xF1; status <= 0xFF; ++status) {
        if (status != 0xF7)
            feed({static_cast<unsigned char>(status), 0, 0, 0});
    }
    feed({0xF7, 0, 0, 0});
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_FALSE(assembling());
}

TEST_F(FramingTest, ARealtimeMessageWhileAssemblingIsAppendedWithItsPadding)
{
    feed({0xF0, 0x01});
    feed({0xF8, 0, 0, 0});
    feed({0x02, 0xF7});
    EXPECT_EQ(delivered(), Messages({{0xF0, 0x01, 0xF8, 0, 0, 0, 0x02, 0xF7}}));
}

TEST_F(FramingTest, ASecondStartWhileAssemblingIsAppended)
{
    feed({0xF0, 0x01});
    feed({0xF0, 0x02, 0xF7});
    EXPECT_EQ(delivered(), Messages({{0xF0, 0x01, 0xF0, 0x02, 0xF7}}));
}

TEST_F(FramingTest, OnlyTheLastByteOfAChunkEndsAMessage)
{
    feed({0xF0, 0x01, 0xF7, 0x02});
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_TRUE(assembling());
    feed({0xF7});
    EXPECT_EQ(delivered(), Messages({{0xF0, 0x01, 0xF7, 0x02, 0xF7}}));
}

TEST_F(FramingTest, ChannelMessageIsDeliveredWholeWhileSysExIsAssembling)
{
    feed({0xF0, 0x01});
    feed({0x90, 0x3C, 0x64, 0x00});
    EXPECT_EQ(delivered(), Messages({{0x90, 0x3C, 0x64, 0x00}}));
    feed({0xF7});
    EXPECT_EQ(delivered()[1], Bytes({0xF0, 0x01, 0xF7}));
}

TEST_F(FramingTest, EveryChannelStatusIsDeliveredAsItCameWithTheThirdArgumentTrue)
{
    for (int status = 0x80; status <= 0xEF; ++status)
        feed({static_cast<unsigned char>(status), 0xF7}, false);
    const std::vector<Received> received = recorder.received();
    ASSERT_EQ(received.size(), 0x70u);
    for (const Received& message : received) {
        EXPECT_EQ(message.bytes.size(), 2u);
        EXPECT_TRUE(message.strictStart);
        EXPECT_FALSE(message.spare);
    }
}

TEST_F(FramingTest, ALengthBelowOneDoesNothingAndComesBack)
{
    EXPECT_EQ(Access::frame(*transport, 0, nullptr), 0);
    EXPECT_EQ(Access::frame(*transport, -5, nullptr), -5);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(FramingTest, ATerminatedTransportTakesEverythingAndDeliversNothing)
{
    feed({0xF0, 0x01});
    transport->terminate();
    EXPECT_EQ(feed({0x90, 0x3C, 0x64, 0x00}), 4);
    EXPECT_EQ(feed({0x02, 0xF7}), 2);
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_TRUE(assembling());
}

TEST_F(FramingTest, TerminatingFromAnObserverStopsAtTheNextOne)
{
    Recorder second;
    transport->registerMIDIobserver(&second);
    recorder.onRead = [this] { transport->terminate(); };
    feed({0x90, 0x3C, 0x64, 0x00});
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(second.count(), 0u);
}

TEST_F(FramingTest, TerminatingDuringASysExDeliveryStillEndsTheAssembly)
{
    Recorder second;
    transport->registerMIDIobserver(&second);
    recorder.onRead = [this] { transport->terminate(); };
    feed({0xF0, 0x01});
    feed({0xF7});
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(second.count(), 0u);
    EXPECT_FALSE(assembling());
}

TEST_F(FramingTest, AnObserverMayCallBackIntoTheTransport)
{
    recorder.onRead = [this] {
        recorder.onRead = nullptr;
        feed({0x80, 0x3C, 0x00, 0x00});
        transport->registerMIDIobserver(&recorder);
    };
    feed({0x90, 0x3C, 0x64, 0x00});
    EXPECT_EQ(delivered(), Messages({{0x90, 0x3C, 0x64, 0x00}, {0x80, 0x3C, 0x00, 0x00}}));
}

TEST_F(FramingTest, AnObserverThatFeedsASysExDuringADeliveryHarmsNobodysBytes)
{
    class Late : public Recorder
    {
    } late;
    transport->registerMIDIobserver(&late);
    recorder.onRead = [this] {
        recorder.onRead = nullptr;
        feed({0x05, 0x06, 0xF7});
    };
    feed({0xF0, 0x01});
    feed({0x02, 0xF7});
    const Bytes first = {0xF0, 0x01, 0x02, 0xF7};
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(delivered()[0], first);
    EXPECT_EQ(delivered()[1], Bytes({0xF0, 0x01, 0x02, 0xF7, 0x05, 0x06, 0xF7}));
    EXPECT_EQ(late.received().back().bytes, first);
    EXPECT_FALSE(assembling());
}

TEST_F(FramingTest, TheLastFlagMeansNothing)
{
    EXPECT_EQ(Access::frame(*transport, {0xF0, 0x01, 0xF7}, true, true), 3);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_FALSE(recorder.received()[0].spare);
}

TEST_F(FramingTest, OneThreadAtATimeDelivers)
{
    std::atomic<int> inObserver{0};
    std::atomic<bool> overlapped{false};
    recorder.onRead = [&] {
        if (++inObserver > 1)
            overlapped = true;
        std::this_thread::yield();
        --inObserver;
    };
    const auto feedMany = [&] {
        for (int i = 0; i < 500; ++i)
            feed({0x90, 1, 2, 0});
    };
    std::thread other(feedMany);
    feedMany();
    other.join();
    EXPECT_EQ(recorder.count(), 1000u);
    EXPECT_FALSE(overlapped);
}

TEST_F(FramingTest, ASysExWhoseLengthNoIntCanTellIsDropped)
{
    feed({0xF0, 0x01});
    *Access::observerBlock(*transport).pendingSysEx = QByteArray(INT_MAX - 100, Qt::Uninitialized);
    feed(Bytes(101, 0xF7));
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_FALSE(assembling());
    feed({0xF0, 0x02, 0xF7});
    EXPECT_EQ(delivered(), Messages({{0xF0, 0x02, 0xF7}}));
}

TEST_F(FramingTest, AMegabyteInPiecesArrivesWhole)
{
    Bytes message(1000000);
    for (std::size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<unsigned char>(i * 7 % 128);
    message.front() = 0xF0;
    message.back() = 0xF7;
    for (std::size_t at = 0; at < message.size(); at += 4096)
        feed(Bytes(message.begin() + long(at),
                   message.begin() + long(std::min(message.size(), at + 4096))));
    EXPECT_EQ(delivered(), Messages({message}));
}

TEST_F(FramingTest, ASysExThatFindsNoMemoryIsLostAndTheNextOneIsWhole)
{
    const Bytes start = {0xF0, 0x01};
    {
        const OutOfMemory outOfMemory;
        EXPECT_EQ(Access::frame(*transport, 2, start.data()), 2);
    }
    EXPECT_FALSE(assembling());
    feed({0x02, 0xF7}); // the rest of a message with a hole
    EXPECT_EQ(recorder.count(), 0u);
    feed({0xF0, 0x03});
    feed({0xF7});
    EXPECT_EQ(delivered(), Messages({{0xF0, 0x03, 0xF7}}));
}

TEST_F(FramingTest, AnUnfinishedSysExIsFreedWithTheTransport)
{
    feed({0xF0, 0x01});
    EXPECT_TRUE(assembling());
}

} // namespace
