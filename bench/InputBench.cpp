// From WinMM's callback to the observers.

#include "bench/Bench.h"

#include <cstring>
#include <memory>
#include <sys/mman.h>

using benchmark::State;
using namespace bench;

namespace {

const int kBatch = 4096;     ///< short messages
const int kSysExBatch = 256; ///< SysEx messages of one buffer each
const DWORD kMessage = 0x00643C90;
const int kPiece = MIDIHeaderBlock::kBufferSize;

// ---- The callback -------------------------------------------------------------------------------

void callbackShort(State& state)
{
    OpenInput input(1);
    measure(
        state, kBatch, [&] { input.dropRecords(); },
        [&] {
            for (int i = 0; i < kBatch; ++i)
                input.callback(MIM_DATA, kMessage);
        });
    expect(state, input.device().recordQueue.avail() == kBatch * int(sizeof(InputRecord)));
}

void callbackSysEx(State& state)
{
    OpenInput input(1);
    const auto header = reinterpret_cast<std::uintptr_t>(input.device().inHeaders.begin());
    measure(
        state, kBatch, [&] { input.dropRecords(); },
        [&] {
            for (int i = 0; i < kBatch; ++i)
                input.callback(MIM_LONGDATA, static_cast<DWORD>(header));
        });
    expect(state, input.device().recordQueue.avail() == kBatch * int(sizeof(InputRecord)));
    input.device().buffersOut.reset(); // none has really come back
}

void floorCallback(State& state)
{
    OpenInput input(1);
    QMutex mutex;
    HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i) {
            mutex.lock();
            benchmark::ClobberMemory();
            mutex.unlock();
            SetEvent(event);
        }
    });
    CloseHandle(event);
}

template <typename Mutex>
void lockAndUnlock(State& state)
{
    Mutex mutex;
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i) {
            mutex.lock();
            benchmark::ClobberMemory();
            mutex.unlock();
        }
    });
}

void floorLock(State& state)
{
    lockAndUnlock<QMutex>(state);
}

void floorRecursiveLock(State& state)
{
    lockAndUnlock<RecursiveMutex>(state);
}

void floorSetEvent(State& state)
{
    OpenInput input(1);
    HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i)
            SetEvent(event);
    });
    CloseHandle(event);
}

void floorVirtualCall(State& state)
{
    Observer observer;
    TMIDIReaderRefConInterface& reader = anyReader(observer);
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i)
            reader.read(4, &kMessage, true, false);
    });
}

// ---- The drain and delivery ---------------------------------------------------------------------

void drainShort(State& state)
{
    OpenInput input(static_cast<int>(state.range(0)));
    measure(
        state, kBatch, [&] { input.queueShortMessages(kBatch); }, [&] { input.drain(); });
    expect(state, input.delivered() == state.iterations() * kBatch * 4);
}

// One lock and unlock, two copies of 4 bytes out of as much memory as the queue's, one virtual call
// for each observer.
void floorShort(State& state)
{
    std::vector<Observer> observers(static_cast<std::size_t>(state.range(0)));
    std::vector<TMIDIReaderRefConInterface*> readers;
    for (Observer& observer : observers)
        readers.push_back(&anyReader(observer));
    const std::vector<InputRecord> queue(kQueueBytes / sizeof(InputRecord),
                                         InputRecord{MIM_DATA, kMessage});
    QMutex mutex;
    std::size_t position = 0;
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i) {
            InputRecord record;
            mutex.lock();
            std::memcpy(&record.message, &queue[position].message, sizeof record.message);
            std::memcpy(&record.param, &queue[position].param, sizeof record.param);
            benchmark::DoNotOptimize(record);
            mutex.unlock();
            position = (position + 1) % queue.size();
            for (TMIDIReaderRefConInterface* reader : readers)
                reader->read(sizeof record.param, &record.param, true, false);
        }
    });
}

// One message at a time: the callback and, at once, the drain that it wakes.
void throughShort(State& state)
{
    OpenInput input(1);
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i) {
            input.callback(MIM_DATA, kMessage);
            input.drain();
        }
    });
    expect(state, input.delivered() == state.iterations() * kBatch * 4);
}

// One lock and unlock on either side, SetEvent, two copies, one virtual call.
void floorThrough(State& state)
{
    OpenInput input(1);
    HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    Observer observer;
    TMIDIReaderRefConInterface& reader = anyReader(observer);
    std::vector<InputRecord> queue(kQueueBytes / sizeof(InputRecord));
    QMutex mutex;
    std::size_t position = 0;
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i) {
            InputRecord record = {MIM_DATA, kMessage};
            mutex.lock();
            queue[position] = record;
            mutex.unlock();
            SetEvent(event);
            mutex.lock();
            record = queue[position];
            benchmark::DoNotOptimize(record);
            mutex.unlock();
            position = (position + 1) % queue.size();
            reader.read(sizeof record.param, &record.param, true, false);
        }
    });
    CloseHandle(event);
}

void drainSysEx(State& state)
{
    OpenInput input(1);
    measure(
        state, std::int64_t(kSysExBatch) * kPiece, [&] { input.queueSysEx(kSysExBatch); },
        [&] { input.drain(); });
    expect(state, input.delivered() == state.iterations() * kSysExBatch * kPiece);
}

// One lock and unlock, one copy of the bytes, the three WinMM calls that give a buffer back, one
// virtual call.
void floorDrainSysEx(State& state)
{
    OpenInput input(1);
    TWinMIDIPrivate& device = input.device();
    const HMIDIIN handle = device.hMidiIn;
    Observer observer;
    TMIDIReaderRefConInterface& reader = anyReader(observer);
    QMutex mutex;
    unsigned char copy[kPiece];
    std::vector<MIDIHDR*> headers;
    measure(
        state, std::int64_t(kSysExBatch) * kPiece,
        [&] {
            input.queueSysEx(kSysExBatch);
            headers.clear();
            InputRecord record;
            while (device.takeRecord(&record))
                headers.push_back(device.inHeaders.find(record.param));
        },
        [&] {
            for (MIDIHDR* header : headers) {
                mutex.lock();
                benchmark::ClobberMemory();
                mutex.unlock();
                std::memcpy(copy, header->lpData, sizeof copy);
                midiInUnprepareHeader(handle, header, sizeof *header);
                midiInPrepareHeader(handle, header, sizeof *header);
                midiInAddBuffer(handle, header, sizeof *header);
                reader.read(kPiece, copy, true, false);
            }
        });
}

// ---- Framing and reassembly ---------------------------------------------------------------------

void frameShort(State& state)
{
    OpenInput input(static_cast<int>(state.range(0)));
    const Bytes message = {0x90, 0x3C, 0x64, 0};
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i)
            input.frame(message);
    });
    expect(state, input.delivered() == state.iterations() * kBatch * 4);
}

void frameSysEx(State& state)
{
    OpenInput input(1);
    const Bytes message = sim::floodSysEx(0, kPiece);
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i)
            input.frame(message);
    });
    expect(state, input.delivered() == state.iterations() * kBatch * kPiece);
}

// One lock and unlock of a recursive mutex and one virtual call for each observer.
void floorDeliver(State& state)
{
    std::vector<Observer> observers(static_cast<std::size_t>(state.range(0)));
    std::vector<TMIDIReaderRefConInterface*> readers;
    for (Observer& observer : observers)
        readers.push_back(&anyReader(observer));
    RecursiveMutex mutex;
    measure(state, kBatch, nothing, [&] {
        for (int i = 0; i < kBatch; ++i) {
            const RecursiveMutexLocker locker(&mutex);
            for (TMIDIReaderRefConInterface* reader : readers)
                reader->read(sizeof kMessage, &kMessage, true, false);
        }
    });
}

/// A SysEx message of `bytes` bytes, in the pieces that the buffers hold.
class Dump
{
public:
    explicit Dump(std::int64_t bytes)
        : pieces(bytes / kPiece), first(kPiece, 0x11), middle(kPiece, 0x22), last(kPiece, 0x33)
    {
        first.front() = 0xF0;
        last.back() = 0xF7;
    }

    template <class Take>
    void forEachPiece(Take take) const
    {
        take(first);
        for (std::int64_t i = 2; i < pieces; ++i)
            take(middle);
        take(last);
    }

private:
    const std::int64_t pieces;
    Bytes first, middle, last;
};

void reassemble(State& state)
{
    OpenInput input(1);
    const Dump dump(state.range(0));
    measure(state, state.range(0), nothing,
            [&] { dump.forEachPiece([&](const Bytes& piece) { input.frame(piece); }); });
    expect(state, input.delivered() == state.iterations() * state.range(0));
}

/// Memory out of the C library's heap.
class HeapBlock
{
public:
    explicit HeapBlock(std::size_t size) : bytes(new unsigned char[size]) {}
    unsigned char* get() const { return bytes.get(); }

private:
    const std::unique_ptr<unsigned char[]> bytes;
};

/// Memory fresh from the system.
class FreshBlock
{
public:
    explicit FreshBlock(std::size_t size)
        : size(size),
          memory(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {}
    ~FreshBlock() { munmap(memory, size); }

    FreshBlock(const FreshBlock&) = delete;
    FreshBlock& operator=(const FreshBlock&) = delete;

    unsigned char* get() const { return static_cast<unsigned char*>(memory); }

private:
    const std::size_t size;
    void* const memory;
};

// A copy of the pieces to where they stay: in a block of the right size from the start, which comes
// by its memory as the message's does.
template <class Block>
void floorMemcpy(State& state)
{
    const Dump dump(state.range(0));
    measure(state, state.range(0), nothing, [&] {
        const Block whole(static_cast<std::size_t>(state.range(0)));
        unsigned char* to = whole.get();
        dump.forEachPiece([&](const Bytes& piece) {
            std::memcpy(to, piece.data(), piece.size());
            to += piece.size();
        });
        benchmark::DoNotOptimize(whole.get());
        benchmark::ClobberMemory();
    });
}

void inKeptMemory(State& state, void run(State&))
{
    const KeptMemory memory;
    if (!memory.isReady()) {
        state.SkipWithError("no memory");
        return;
    }
    // Written before.
    std::unique_ptr<char[]> whole(new char[static_cast<std::size_t>(state.range(0))]());
    benchmark::DoNotOptimize(whole.get());
    whole.reset();
    run(state);
}

void reassembleKept(State& state)
{
    inKeptMemory(state, reassemble);
}

void floorMemcpyKept(State& state)
{
    inKeptMemory(state, floorMemcpy<HeapBlock>);
}

void timed(benchmark::internal::Benchmark* benchmark)
{
    benchmark->UseManualTime();
}

void perObservers(benchmark::internal::Benchmark* benchmark)
{
    for (const int count : {1, 4, 16})
        benchmark->Arg(count);
    timed(benchmark);
}

void perLargeSize(benchmark::internal::Benchmark* benchmark)
{
    for (const int megabytes : {1, 16, 64})
        benchmark->Arg(std::int64_t(megabytes) << 20);
    timed(benchmark);
}

BENCHMARK(callbackShort)->Apply(timed);
BENCHMARK(callbackSysEx)->Apply(timed);
BENCHMARK(floorCallback)->Apply(timed);
BENCHMARK(floorLock)->Apply(timed);
BENCHMARK(floorRecursiveLock)->Apply(timed);
BENCHMARK(floorSetEvent)->Apply(timed);
BENCHMARK(floorVirtualCall)->Apply(timed);
BENCHMARK(throughShort)->Apply(timed);
BENCHMARK(floorThrough)->Apply(timed);
BENCHMARK(drainShort)->Apply(perObservers);
BENCHMARK(floorShort)->Apply(perObservers);
BENCHMARK(frameShort)->Apply(perObservers);
BENCHMARK(floorDeliver)->Apply(perObservers);
BENCHMARK(frameSysEx)->Apply(timed);
BENCHMARK(drainSysEx)->Apply(timed);
BENCHMARK(floorDrainSysEx)->Apply(timed);
BENCHMARK(reassemble)->Arg(64 << 10)->Apply(perLargeSize);
BENCHMARK(floorMemcpy<HeapBlock>)->Name("floorMemcpy")->Arg(64 << 10)->Apply(timed);
BENCHMARK(floorMemcpy<FreshBlock>)->Name("floorMemcpy")->Apply(perLargeSize);
BENCHMARK(reassembleKept)->Apply(perLargeSize);
BENCHMARK(floorMemcpyKept)->Apply(perLargeSize);

} // namespace
