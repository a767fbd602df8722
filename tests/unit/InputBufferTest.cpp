#include "tests/unit/OutOfMemory.h"
#include "tests/unit/TestSupport.h"

#include <cstdint>
#include <cstring>
#include <optional>

namespace {

/// The way of the input buffers to the device and back, on a scripted clock. The test drains.
class InputBufferTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        sim::useVirtualTime();
        openForDraining();
    }

    int drain() { return Access::drain(*transport); }

    void receive(const Bytes& message)
    {
        ASSERT_EQ(sim::sysEx(input, message.data(), message.size()), message.size());
    }

    std::vector<Bytes> delivered() const
    {
        std::vector<Bytes> bytes;
        for (const Received& message : recorder.received())
            bytes.push_back(message.bytes);
        return bytes;
    }

    /// Milliseconds that closing takes.
    DWORD close()
    {
        const DWORD start = timeGetTime();
        EXPECT_EQ(transport->closeInput(), 0);
        return timeGetTime() - start;
    }
};

using Messages = std::vector<Bytes>;

const Bytes kSysEx = {0xF0, 0x7D, 1, 2, 3, 0xF7};

TEST_F(InputBufferTest, ABufferIsMarkedEmptyBeforeItIsPreparedAgain)
{
    // Whether the driver does that itself is the driver's business.
    int prepared = 0;
    sim::onCall("midiInPrepareHeader", [&](const sim::Call& call) {
        EXPECT_EQ(call.header->dwBytesRecorded, 0u);
        EXPECT_EQ(call.header->dwFlags, 0u);
        ++prepared;
    });
    receive(kSysEx);
    sim::returnBuffer(input, 4096, nullptr, 0, MIM_LONGERROR);
    drain();
    EXPECT_EQ(prepared, 2);
}

TEST_F(InputBufferTest, ABufferIsCopiedBeforeTheDeviceHasItAgain)
{
    sim::onCall("midiInAddBuffer", [](const sim::Call& call) {
        std::memset(call.header->lpData, 0x55, call.header->dwBufferLength);
    });
    receive(kSysEx);
    Bytes dump = sim::floodSysEx(1, 10000);
    receive(dump);
    drain();
    EXPECT_EQ(delivered(), Messages({kSysEx, dump}));
}

TEST_F(InputBufferTest, ABufferIsReadWhereItLiesWhateverADriverMadeOfItsHeader)
{
    receive(kSysEx);
    MIDIHDR& header = *device().inHeaders.begin();
    char* const own = header.lpData;
    header.lpData = nullptr;
    drain();
    EXPECT_EQ(delivered(), Messages({kSysEx}));
    EXPECT_EQ(header.lpData, own) << "where the device is to write next";
}

TEST_F(InputBufferTest, AHeaderThatADriverSpoiledHasItsBufferAgainAtTheNextOpening)
{
    MIDIHDR& header = *device().inHeaders.begin();
    char* const own = header.lpData;
    close();
    header.lpData = own - 1;
    header.dwBufferLength = 0xFFFFFFFF;
    openForDraining();
    EXPECT_EQ(header.lpData, own);
    EXPECT_EQ(header.dwBufferLength, 4096u);
}

TEST_F(InputBufferTest, AnErrorNoticeLeftFromBeforeTheOpeningIsNotActedUpon)
{
    sim::returnBuffer(input, 0, nullptr, 0, MIM_LONGERROR); // header 0
    close();
    // Header 0 is the device's again: asked for it back, the device would say so without end.
    sim::failCall("midiInUnprepareHeader", 1, MMSYSERR_ERROR, sim::kAllFromThere);
    sim::clearCalls();
    openForDraining();
    EXPECT_EQ(drain(), 0);
    EXPECT_TRUE(sim::calls("midiInUnprepareHeader").empty());
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputBufferTest, ALateNoticeOfAnEarlierOpeningTakesNoBufferOfThisOne)
{
    // Should the drain ask for the header, which is with the device, it would get it.
    sim::failCall("midiInUnprepareHeader", 1, MMSYSERR_NOERROR, sim::kAllFromThere);
    sim::clearCalls();
    const auto header = reinterpret_cast<std::uintptr_t>(device().inHeaders.begin());
    for (const UINT code : {UINT(MIM_LONGDATA), UINT(MIM_LONGERROR)}) {
        Access::midiInProc(*transport, code, static_cast<DWORD>(header));
        EXPECT_EQ(drain(), 0);
        EXPECT_TRUE(sim::calls("midiInUnprepareHeader").empty());
    }
    sim::clearFailures();
}

TEST_F(InputBufferTest, ANoticeLeftFromBeforeTheOpeningDoesNotGoBeforeTheNewOnes)
{
    const Bytes dump = sim::floodSysEx(1, 5000); // headers 0 and 1
    for (const UINT code : {UINT(MIM_LONGDATA), UINT(MIM_LONGERROR)}) {
        sim::returnBuffer(input, 0); // header 0
        drain();
        sim::returnBuffer(input, 0, nullptr, 0, code); // header 1
        close();

        std::atomic<bool> arrived{false};
        sim::onCall("WaitForMultipleObjects", [&](const sim::Call&) {
            while (!arrived) // the pusher drains nothing before
                std::this_thread::yield();
        });
        ASSERT_NE(transport->openInput(1), nullptr);
        receive(dump);
        arrived = true;
        EXPECT_TRUE(recorder.waitFor(code == MIM_LONGDATA ? 1 : 2)) << code;
        close();
        sim::clearHooks();
        openForDraining();
    }
    EXPECT_EQ(delivered(), Messages({dump, dump}));
}

TEST_F(InputBufferTest, NoticesOfBuffersThatAreNotBackDoNotShortenTheWaitForThem)
{
    for (const MIDIHDR& header : device().inHeaders) {
        const auto late = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(&header));
        Access::midiInProc(*transport, MIM_LONGDATA, late);  // an earlier opening's
        Access::midiInProc(*transport, MIM_LONGERROR, 0x10); // a lost device's
    }
    sim::failCall("midiInReset", 1, MMSYSERR_NOERROR); // the buffers come later
    int waits = 0;
    sim::onCall("Sleep", [&](const sim::Call&) {
        ++waits;
        while (sim::returnBuffer(input, 0)) {
        }
    });
    close();
    sim::clearHooks();
    EXPECT_EQ(waits, 1);
}

TEST_F(InputBufferTest, ABufferThatCameBackWithAnErrorIsNotWaitedForAtTheClose)
{
    sim::returnBuffer(input, 0, nullptr, 0, MIM_LONGERROR);
    EXPECT_EQ(close(), 0u);
}

TEST_F(InputBufferTest, ABufferThatOneOpeningLostIsNotMissedByTheNext)
{
    // A broken driver gives a buffer back with a code that says nothing of it.
    ASSERT_NE(sim::returnBuffer(input, 0, nullptr, 0, MIM_MOREDATA), nullptr);
    close();
    openForDraining();
    EXPECT_EQ(close(), 0u);
}

TEST_F(InputBufferTest, ABufferThatTheDeviceRefusesIsNotWaitedFor)
{
    close();
    const DWORD start = timeGetTime();
    for (const unsigned n : {1u, 5u, 768u}) {
        sim::failCall("midiInAddBuffer", n);
        EXPECT_EQ(transport->openInput(1), nullptr);
    }
    EXPECT_EQ(timeGetTime(), start);

    openForDraining();
    receive(kSysEx);
    sim::failCall("midiInAddBuffer");
    drain();
    EXPECT_EQ(close(), 0u);
}

TEST_F(InputBufferTest, ACallbackThatOutlivesTheCloseOfItsPortQueuesAndSignalsNothing)
{
    const HMIDIIN handle = device().hMidiIn;
    QMutex& queue = *device().recordQueue.mutex();
    std::thread driver;
    bool heldBack = false;
    const auto letGo = [&] {
        if (heldBack)
            queue.unlock();
        heldBack = false;
    };
    // From the close on, the callback is on its way to look whether the port is closing. The close
    // fails so that no callback of its own stands behind that one.
    sim::failCall("midiInClose");
    sim::onCall("midiInClose", [&](const sim::Call&) {
        sim::clearHooks();
        WaitForSingleObject(Access::dataEvent(*transport), 0);
        queue.lock();
        heldBack = true;
        driver = std::thread([&] { Access::midiInProc(*transport, MIM_DATA, 0x643C90, handle); });
        while (!device().gate->isBusy())
            std::this_thread::yield();
        sim::onCall("Sleep", [&](const sim::Call&) { // the close waits for it
            letGo();
            while (device().gate->isBusy())
                std::this_thread::yield();
        });
    });
    EXPECT_EQ(transport->closeInput(), 0);
    letGo();
    driver.join();
    sim::clearHooks();
    EXPECT_EQ(device().recordQueue.avail(), 0);
    EXPECT_FALSE(sim::isSignalled(Access::dataEvent(*transport)));
    EXPECT_EQ(midiInClose(handle), DWORD(MMSYSERR_NOERROR));
    left.heapBlocks = 2; // headers and data, left to the device that refused to close
}

TEST_F(InputBufferTest, OpeningOverAnOpenInputQueuesAllBuffersAnewAndReplacesTheHandle)
{
    const int second = sim::addInput(u"Second");
    const HMIDIIN first = device().hMidiIn;
    void* const handle = transport->openInput(2);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(handle, first);
    EXPECT_EQ(transport->openInput(0), handle);
    EXPECT_EQ(sim::queuedBuffers(second), 768u);
    EXPECT_EQ(sim::inUse().inputPorts, 2);
    EXPECT_TRUE(sim::shortMessage(second, 0x643C90));
    EXPECT_TRUE(recorder.waitFor(1));

    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(transport->closeInput(), -1);
    EXPECT_EQ(sim::inUse().inputPorts, 1) << "the first one is the host's to close";
    midiInReset(first);
    EXPECT_EQ(midiInClose(first), DWORD(MMSYSERR_NOERROR));
}

TEST_F(InputBufferTest, TheHandleIsCurrentUntilTheDeviceIsStoppedAndGoneAtItsReset)
{
    void* const handle = transport->openInput(0);
    void* atStop = nullptr;
    void* atReset = this;
    sim::onCall("midiInStop", [&](const sim::Call&) { atStop = transport->openInput(0); });
    sim::onCall("midiInReset", [&](const sim::Call&) { atReset = transport->openInput(0); });
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(atStop, handle);
    EXPECT_EQ(atReset, nullptr);
}

TEST_F(InputBufferTest, AMessageOfOneByteComesAsFourBytes)
{
    sim::shortMessage(input, 0xF8);
    sim::shortMessage(input, 0xF6);
    sim::shortMessage(input, 0x90); // a broken driver's
    drain();
    EXPECT_EQ(delivered(), Messages({{0x90, 0, 0, 0}}))
        << "what is no SysEx and no channel message";

    receive({0xF0, 1});
    sim::shortMessage(input, 0xF8);
    receive({2, 0xF7});
    drain();
    EXPECT_EQ(delivered().back(), Bytes({0xF0, 1, 0xF8, 0, 0, 0, 2, 0xF7}));
}

TEST_F(InputBufferTest, EverySystemMessageWhileASysExArrivesBecomesPartOfIt)
{
    Bytes expected = {0xF0, 1};
    receive(expected);
    for (DWORD status = 0xF0; status <= 0xFF; ++status) { // F4, F5, F9 and FD mean nothing in MIDI
        sim::shortMessage(input, status | 0x0201'00);
        expected.insert(expected.end(), {static_cast<unsigned char>(status), 1, 2, 0});
    }
    drain();
    EXPECT_EQ(recorder.count(), 0u) << "an F7 ends a message as the last of four bytes only";
    receive({0xF7});
    expected.push_back(0xF7);
    drain();
    EXPECT_EQ(delivered(), Messages({expected}));
}

TEST_F(InputBufferTest, WithoutMemoryForThePusherAnOpenInputQueuesAndDeliversNothing)
{
    close();
    std::optional<OutOfMemory> shortage;
    sim::onCall("midiInStart", [&](const sim::Call&) { shortage.emplace(); });
    void* const handle = transport->openInput(1);
    shortage.reset();
    sim::clearHooks();
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(Access::pusher(*transport), nullptr);
    const int before = device().recordQueue.avail();
    sim::shortMessage(input, 0x643C90);
    EXPECT_EQ(device().recordQueue.avail(), before + 8);
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(recorder.count(), 0u);

    ASSERT_NE(transport->openInput(1), nullptr);
    EXPECT_TRUE(recorder.waitFor(1)) << "with memory for the pusher it comes";
}

} // namespace
