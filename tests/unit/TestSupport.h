#ifndef LUMORA_TESTS_UNIT_TESTSUPPORT_H
#define LUMORA_TESTS_UNIT_TESTSUPPORT_H

#include "ports/MIDIPortAccessor.h"
#include "tests/unit/TransportTestAccess.h"
#include "workbench/sim/Sim.h"

#include <QSettings>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

inline std::ostream& operator<<(std::ostream& stream, const QString& text)
{
    return stream << '"' << text.toStdString() << '"';
}

inline std::ostream& operator<<(std::ostream& stream, const QUuid& id)
{
    return stream << id.toString();
}

inline std::ostream& operator<<(std::ostream& stream, const QStringList& list)
{
    return stream << list.join(QLatin1String(" | "));
}

/// A message as an observer got it.
struct Received
{
    Bytes bytes;
    bool strictStart;
    bool spare;
    const void* data;
    std::thread::id thread;
};

/// Keeps what it gets. May be given work to do in each call.
class Recorder : public TMIDIReaderRefConInterface
{
public:
    virtual ~Recorder() = default;

    int read(int length, const void* data, bool strictStart, bool spare) override
    {
        const unsigned char* const bytes = static_cast<const unsigned char*>(data);
        {
            const std::lock_guard<std::mutex> guard(mutex);
            messages.push_back({Bytes(bytes, bytes + length), strictStart, spare, data,
                                std::this_thread::get_id()});
        }
        arrived.notify_all();
        if (onRead)
            onRead();
        return 0;
    }

    std::vector<Received> received() const
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return messages;
    }

    std::size_t count() const
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return messages.size();
    }

    /// Waits until `expected` messages have come; false if they did not within ten seconds.
    bool waitFor(std::size_t expected)
    {
        std::unique_lock<std::mutex> guard(mutex);
        return arrived.wait_for(guard, std::chrono::seconds(10),
                                [&] { return messages.size() >= expected; });
    }

    std::function<void()> onRead;

private:
    mutable std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Received> messages;
};

/// An accessor whose maps a test fills by hand.
class MapAccessor : public IMIDIPortAccessor
{
public:
    virtual ~MapAccessor() = default;

    void Release() override {}
    QUuid portIdentity(const QString&, bool) const override { return QUuid(); }
    QString portName(const QUuid&) const override { return QString(); }
    int numberOfPlugs(bool output) const override
    {
        ++numberOfPlugsCalls;
        return countOverride >= 0 ? countOverride : static_cast<int>(maps[output].size());
    }
    const TSystemMIDIMap& plugs(bool output) const override
    {
        ++plugsCalls;
        return maps[output];
    }

    TSystemMIDIMap maps[2];
    int countOverride = -1;
    mutable int numberOfPlugsCalls = 0;
    mutable int plugsCalls = 0;
};

/// Identifier number n, in ascending order of n.
inline QUuid uuid(unsigned char n)
{
    return QUuid(1, 2, 3, 0x80, 0, 0, 0, 0, 0, 0, n);
}

/// Starts every test on a fresh simulation, and fails it if it leaves anything in use.
class SimTest : public testing::Test
{
protected:
    void SetUp() override { sim::reset(); }

    void TearDown() override
    {
        if (!HasFatalFailure()) {
            EXPECT_EQ(sim::inUse(), left) << "left in use at the end of the test";
        }
        sim::reset();
    }

    /// What the test leaves in use on purpose.
    sim::Resources left;
};

/// A test with a Windows transport on one input and one output.
class DeviceTest : public SimTest
{
protected:
    using Access = TransportTestAccess;

    void SetUp() override
    {
        SimTest::SetUp();
        input = sim::addInput(u"In");
        output = sim::addOutput(u"Out");
        makeTransport();
    }

    void TearDown() override
    {
        sim::clearHooks();
        sim::clearFailures();
        releaseTransport();
        SimTest::TearDown();
    }

    void makeTransport()
    {
        transport = &MIDITransportInstance(&accessor);
        transport->registerMIDIobserver(&recorder);
    }

    void releaseTransport()
    {
        if (transport)
            transport->Release();
        transport = nullptr;
    }

    TWinMIDIPrivate& device() { return Access::device(*transport); }

    /// Queues a note as the callback would, but wakes nobody.
    void queueNote()
    {
        const MutexLocker locker(device().recordQueue.mutex());
        const InputRecord note = {MIM_DATA, 0x643C90};
        device().recordQueue.write(&note, sizeof note);
    }

    /// Opens the input and stops its pusher, so that the test itself drains, step by step. Whether
    /// the pusher got to the MIM_OPEN record or not, the queue is empty then.
    void openForDraining()
    {
        ASSERT_NE(transport->openInput(1), nullptr);
        Access::stop(*transport);
        Access::drain(*transport);
    }

    MapAccessor accessor;
    Recorder recorder;
    TMIDITransport* transport = nullptr;
    int input = -1;
    int output = -1;
};

#endif
