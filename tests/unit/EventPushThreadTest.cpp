#include "tests/unit/OutOfMemory.h"
#include "tests/unit/TestSupport.h"

#include <QThread>

namespace {

class EventPushThreadTest : public DeviceTest
{
protected:
    /// Starts the thread without a port: it drains once, since the event begins signalled, and then
    /// waits for the next signal.
    void startAndLetDrain()
    {
        Access::start(*transport);
        while (sim::callCount("WaitForMultipleObjects") < 2)
            std::this_thread::yield();
    }
};

TEST_F(EventPushThreadTest, AnObserverRegisteredTwiceReceivesOnce)
{
    transport->registerMIDIobserver(&recorder);
    transport->registerMIDIobserver(&recorder);
    Access::frame(*transport, {0x90, 1, 2, 0});
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(EventPushThreadTest, ObserversReceiveInTheOrderOfTheirRegistration)
{
    std::vector<int> order;
    Recorder second;
    recorder.onRead = [&] { order.push_back(1); };
    second.onRead = [&] { order.push_back(2); };
    transport->registerMIDIobserver(&second);
    transport->registerMIDIobserver(&recorder);
    Access::frame(*transport, {0x90, 1, 2, 0});
    Access::frame(*transport, {0xF0, 1, 2, 0xF7});
    EXPECT_EQ(order, (std::vector<int>{1, 2, 1, 2}));
}

TEST_F(EventPushThreadTest, ANullObserverIsAcceptedAndHidesNobody)
{
    Recorder second;
    transport->registerMIDIobserver(nullptr);
    transport->registerMIDIobserver(nullptr);
    transport->registerMIDIobserver(&second);
    EXPECT_EQ(Access::observerBlock(*transport).observers.count(), 3u);
    Access::frame(*transport, {0x90, 1, 2, 0});
    TMIDIEvent event{QByteArray("\x90\x01\x02", 3)};
    transport->doEvent(event);
    EXPECT_EQ(recorder.count(), 2u);
    EXPECT_EQ(second.count(), 2u);
}

TEST_F(EventPushThreadTest, AnObserverThatRegistersAnotherHidesNobody)
{
    Recorder second;
    Recorder third;
    transport->registerMIDIobserver(&second);
    recorder.onRead = [&] { transport->registerMIDIobserver(&third); };
    Access::frame(*transport, {0x90, 1, 2, 0});
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(second.count(), 1u);
    EXPECT_EQ(third.count(), 1u) << "the message at hand, too";
}

TEST_F(EventPushThreadTest, AnObserverThatCallsDoEventHidesNobody)
{
    Recorder second;
    transport->registerMIDIobserver(&second);
    bool nested = false;
    recorder.onRead = [&] {
        if (nested)
            return;
        nested = true;
        TMIDIEvent event{QByteArray("\xB0\x07\x7F", 3)};
        transport->doEvent(event);
    };
    Access::frame(*transport, {0x90, 1, 2, 0});
    EXPECT_EQ(recorder.count(), 2u);
    ASSERT_EQ(second.count(), 2u);
    EXPECT_EQ(second.received()[0].bytes, Bytes({0xB0, 0x07, 0x7F}));
    EXPECT_EQ(second.received()[1].bytes, Bytes({0x90, 1, 2, 0}));
}

TEST_F(EventPushThreadTest, DoEventCallsEveryObserverEvenAfterTerminate)
{
    Recorder second;
    transport->registerMIDIobserver(&second);
    transport->terminate();
    TMIDIEvent event{QByteArray("\xB0\x07\x7F", 3)};
    transport->doEvent(event);
    for (const Recorder* observer : {&recorder, &second}) {
        const std::vector<Received> received = observer->received();
        ASSERT_EQ(received.size(), 1u);
        EXPECT_EQ(received[0].bytes, Bytes({0xB0, 0x07, 0x7F}));
        EXPECT_TRUE(received[0].strictStart);
        EXPECT_FALSE(received[0].spare);
        EXPECT_EQ(received[0].thread, std::this_thread::get_id());
    }
}

TEST_F(EventPushThreadTest, DoEventDeliversAnEmptyEventToo)
{
    TMIDIEvent event;
    transport->doEvent(event);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_TRUE(recorder.received()[0].bytes.empty());
}

TEST_F(EventPushThreadTest, StartingTwiceMakesOneThread)
{
    Access::start(*transport);
    TMIDIEventPushThread* const thread = Access::pusher(*transport);
    ASSERT_NE(thread, nullptr);
    Access::start(*transport);
    EXPECT_EQ(Access::pusher(*transport), thread);
    Access::stop(*transport);
    EXPECT_EQ(Access::pusher(*transport), nullptr);
}

TEST_F(EventPushThreadTest, StoppingWithoutAThreadOnlySignalsTheEvent)
{
    const HANDLE event = Access::dataEvent(*transport);
    WaitForSingleObject(event, 0);
    sim::clearCalls();
    Access::stop(*transport);
    EXPECT_EQ(sim::callNames(), std::vector<std::string>{"SetEvent"});
    EXPECT_TRUE(sim::isSignalled(event));
}

TEST_F(EventPushThreadTest, StoppingSignalsTwiceAndDrainsOnceMore)
{
    startAndLetDrain();
    queueNote();
    sim::clearCalls();
    Access::stop(*transport);
    EXPECT_GE(sim::calls("SetEvent").size(), 2u); // more if the thread takes its time
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(EventPushThreadTest, AThreadThatMissedItsSignalsIsSignalledAgain)
{
    // A transport of the same number in another process shares the event and may take them.
    startAndLetDrain();
    sim::clearCalls();
    sim::failCall("SetEvent", 1, FALSE, 2);
    Access::stop(*transport);
    EXPECT_EQ(Access::pusher(*transport), nullptr);
    EXPECT_GE(sim::calls("SetEvent").size(), 3u);
}

TEST_F(EventPushThreadTest, TheThreadDrainsWithAStrictStart)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    const Bytes noStart = {1, 0xF7};
    const Bytes whole = {0xF0, 1, 0xF7};
    sim::sysEx(input, noStart.data(), noStart.size());
    sim::sysEx(input, whole.data(), whole.size());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.received()[0].bytes, whole);
    EXPECT_TRUE(recorder.received()[0].strictStart);
    EXPECT_FALSE(recorder.received()[0].spare);
}

TEST_F(EventPushThreadTest, TheThreadWaitsForTheOneEventWithoutATimeOut)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    ASSERT_TRUE(recorder.waitFor(1));
    const std::vector<sim::Call> waits = sim::calls("WaitForMultipleObjects");
    ASSERT_FALSE(waits.empty());
    EXPECT_EQ(waits[0].handle, reinterpret_cast<std::uintptr_t>(Access::dataEvent(*transport)));
    EXPECT_EQ(waits[0].arguments[0], 1u);
    EXPECT_EQ(waits[0].arguments[1], INFINITE);
    EXPECT_EQ(sim::calls("WaitForSingleObject").size(), 0u);
}

TEST_F(EventPushThreadTest, DeliveryRunsOnAThreadOfItsOwnAtTimeCriticalPriority)
{
    QThread::Priority priority = QThread::InheritPriority;
    recorder.onRead = [&] { priority = QThread::currentThread()->priority(); };
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    ASSERT_TRUE(recorder.waitFor(1));
    transport->closeInput();
    EXPECT_NE(recorder.received()[0].thread, std::this_thread::get_id());
    EXPECT_EQ(priority, QThread::TimeCriticalPriority);
}

TEST_F(EventPushThreadTest, EveryOpeningHasANewThread)
{
    for (int round = 0; round < 3; ++round) {
        ASSERT_NE(transport->openInput(1), nullptr);
        EXPECT_NE(Access::pusher(*transport), nullptr);
        sim::shortMessage(input, 0x643C90);
        ASSERT_TRUE(recorder.waitFor(std::size_t(round) + 1));
        EXPECT_EQ(transport->closeInput(), 0);
        EXPECT_EQ(Access::pusher(*transport), nullptr);
    }
}

TEST_F(EventPushThreadTest, AFirstWakeUpWithAnEmptyQueueDeliversNothing)
{
    EXPECT_TRUE(sim::isSignalled(Access::dataEvent(*transport)));
    ASSERT_NE(transport->openInput(1), nullptr);
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EventPushThreadTest, WithoutAnEventInputIsDeliveredAllTheSame)
{
    releaseTransport();
    sim::failCall("CreateEventW");
    makeTransport();
    ASSERT_EQ(Access::dataEvent(*transport), nullptr);
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    EXPECT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(transport->closeInput(), 0);
}

TEST_F(EventPushThreadTest, WithoutMemoryForTheThreadTheInputOpensAndQueues)
{
    {
        OutOfMemory shortage;
        Access::start(*transport);
    }
    EXPECT_EQ(Access::pusher(*transport), nullptr);
}

TEST_F(EventPushThreadTest, ClosingWaitsForTheObserverThatIsBeingCalled)
{
    std::atomic<bool> inObserver{false};
    std::atomic<bool> leftObserver{false};
    recorder.onRead = [&] {
        inObserver = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        leftObserver = true;
    };
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    while (!inObserver)
        std::this_thread::yield();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_TRUE(leftObserver);
}

TEST_F(EventPushThreadTest, AnObserverCannotCloseOrReopenItsInputAndNothingHangs)
{
    int closed = 0;
    void* opened = this;
    void* current = nullptr;
    recorder.onRead = [&] {
        closed = transport->closeInput();
        opened = transport->openInput(1);
        current = transport->openInput(0);
    };
    void* const handle = transport->openInput(1);
    ASSERT_NE(handle, nullptr);
    sim::shortMessage(input, 0x643C90);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(closed, -1);
    EXPECT_EQ(opened, nullptr);
    EXPECT_EQ(current, handle);
}

TEST_F(EventPushThreadTest, AnObserverMayOpenAndCloseTheOutput)
{
    std::atomic<bool> done{false};
    void* opened = nullptr;
    int closed = -1;
    recorder.onRead = [&] {
        opened = transport->openOutput(1);
        closed = transport->closeOutput();
        done = true;
    };
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    while (!done)
        std::this_thread::yield();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_NE(opened, nullptr);
    EXPECT_EQ(closed, 0);
}

TEST_F(EventPushThreadTest, AnObserverThatOpensOrClosesWhileTheInputClosesIsTurnedAway)
{
    void* opened = this;
    int closed = 0;
    void* current = nullptr;
    std::atomic<bool> inObserver{false};
    recorder.onRead = [&] {
        inObserver = true;
        while (!device().closingInput)
            std::this_thread::yield();
        // The closing thread holds the device lock now and waits for this thread.
        opened = transport->openOutput(1);
        closed = transport->closeOutput();
        current = transport->openInput(0);
    };
    void* const handle = transport->openInput(1);
    sim::shortMessage(input, 0x643C90);
    while (!inObserver)
        std::this_thread::yield();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(opened, nullptr);
    EXPECT_EQ(closed, -1);
    EXPECT_EQ(current, handle);
}

} // namespace
