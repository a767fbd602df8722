#ifndef LUMORA_BENCH_BENCH_H
#define LUMORA_BENCH_BENCH_H

#include "tests/unit/TransportTestAccess.h"
#include "workbench/sim/Sim.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdint>
#include <vector>

// What the benchmarks share. A benchmark named floor… does the least that the one it belongs to
// could do, on the same memory and in batches of the same size.
namespace bench {

/// Heap allocations of the calling thread so far, by whatever function.
std::uint64_t allocations();

/// Runs `prepare` and then, timed, `work`, which does `items` operations, over and over. Sets the
/// counters items_per_second and allocations: those of `work`, all runs together.
template <class Prepare, class Work>
void measure(benchmark::State& state, std::int64_t items, Prepare prepare, Work work)
{
    std::uint64_t allocated = 0;
    for (auto _ : state) {
        prepare();
        const std::uint64_t before = allocations();
        const auto start = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        allocated += allocations() - before;
        state.SetIterationTime(elapsed.count());
    }
    state.SetItemsProcessed(state.iterations() * items);
    state.counters["allocations"] = static_cast<double>(allocated);
}

inline void nothing() {}

/// Fails the benchmark if it did not do what it was measured for.
inline void expect(benchmark::State& state, bool done)
{
    if (!done)
        state.SkipWithError("did not do its work");
}

/// Lets every large block come fresh from the system and go back to it, as those of Windows' heaps
/// do.
void letLargeBlocksComeFresh();

/// While it lives, a large block lies in memory that has been written before, as long as it is the
/// only one, and grows without moving: what is left is the work of the program itself, not the
/// system's to bring up page after page.
class KeptMemory
{
public:
    KeptMemory();
    ~KeptMemory();

    KeptMemory(const KeptMemory&) = delete;
    KeptMemory& operator=(const KeptMemory&) = delete;

    bool isReady() const;
};

/// Takes a message and does next to nothing with it.
class Observer : public TMIDIReaderRefConInterface
{
public:
    virtual ~Observer() = default;

    int read(int length, const void* data, bool strictStart, bool spare) override;

    /// Bytes of all messages so far.
    std::int64_t taken() const { return bytes; }

private:
    std::int64_t bytes = 0;
};

/// The same observer, where the compiler cannot tell which: it has to make the virtual call.
TMIDIReaderRefConInterface& anyReader(Observer& observer);

/// A transport on a fresh simulation, with its input open and its pusher thread stopped: the
/// benchmark itself plays WinMM's thread and the pusher, one after the other.
class OpenInput
{
public:
    using Access = TransportTestAccess;

    explicit OpenInput(int observerCount);
    ~OpenInput();

    OpenInput(const OpenInput&) = delete;
    OpenInput& operator=(const OpenInput&) = delete;

    TWinMIDIPrivate& device() { return Access::device(transport); }
    void callback(UINT message, DWORD parameter)
    {
        Access::midiInProc(transport, message, parameter, device().hMidiIn);
    }
    void drain() { Access::drain(transport); }
    void frame(const Bytes& chunk) { Access::frame(transport, chunk); }

    /// Bytes that each observer has taken so far.
    std::int64_t delivered() const { return observers.back().taken(); }

    /// Queues `count` records of a short message, past the callback.
    void queueShortMessages(int count);

    /// Has the device return `count` buffers, each with a whole SysEx message, through the
    /// callback.
    void queueSysEx(int count);

    /// Empties the record queue.
    void dropRecords();

private:
    const int input;
    std::vector<Observer> observers;
    Bytes sysEx;

public:
    TMIDITransport& transport;
};

} // namespace bench

#endif
