// Failures, counters, hooks and the call log.
#include "SimInternal.h"

#include "workbench/device/Port.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <ostream>
#include <type_traits>

namespace sim {
namespace internal {

namespace {

std::atomic<std::uint64_t> callCounts[kFunctions.size()];

// What the test has ordered. A published script never changes, so calls read it without a lock; an
// old one is kept until reset(), as a call may still be reading it.
struct Script
{
    std::vector<Fault> faults;
    std::vector<std::pair<std::size_t, std::function<void(const Call&)>>> hooks;
};

std::mutex scriptLock; // guards scripts
std::deque<Script> scripts;
std::atomic<const Script*> currentScript{nullptr}; // null: nothing ordered

template <typename Change>
void changeScript(Change change)
{
    const std::lock_guard<std::mutex> guard(scriptLock);
    scripts.push_back(scripts.empty() ? Script() : scripts.back());
    Script& script = scripts.back();
    change(script);
    const bool empty = script.faults.empty() && script.hooks.empty();
    currentScript.store(empty ? nullptr : &script, std::memory_order_release);
}

} // namespace

// One call in the log. `state` publishes the rest to whoever reads the log.
struct LogRecord
{
    enum State : int { Empty, Begun, Returned };
    std::atomic<int> state{Empty};
    std::atomic<std::uint64_t> result{0};
    Call call;
};

namespace {

constexpr std::size_t kLogCapacity = std::size_t(1) << 17;

std::atomic<bool> logging{true};
std::atomic<std::size_t> logUsed{0};
// Where calls() begins. Records before it are not used again until reset(), as a call that is still
// blocked will come back to its record.
std::atomic<std::size_t> logStart{0};

// All zero, and few enough for the compiler to see that, so that the kernel backs only what is
// written.
LogRecord records[kLogCapacity];

} // namespace

Entry::Entry(std::size_t function, const void* handle, MIDIHDR* header, std::uint64_t argument1,
             std::uint64_t argument2)
{
    const std::uint64_t number = callCounts[function].fetch_add(1, std::memory_order_relaxed) + 1;
    const bool logs = logging.load(std::memory_order_relaxed);
    const bool scripted = currentScript.load(std::memory_order_relaxed) != nullptr;
    if (!logs && !scripted)
        return;

    Call call{kFunctions[function],
              reinterpret_cast<std::uintptr_t>(handle),
              header,
              {argument1, argument2}};
    if (header) {
        call.headerFlags = device::flagsOf(*header);
        call.headerLength = header->dwBufferLength;
    }
    if (logs) {
        const std::size_t index = logUsed.fetch_add(1, std::memory_order_relaxed);
        if (index >= kLogCapacity)
            stopWith("the call log is full; switch it off with logCalls(false)");
        record = &records[index];
        record->call = call;
        record->state.store(LogRecord::Begun, std::memory_order_release);
    }
    if (scripted)
        consultScript(function, call, number);
}

void Entry::consultScript(std::size_t function, const Call& call, std::uint64_t number)
{
    if (const Script* const script = currentScript.load(std::memory_order_acquire)) {
        for (const auto& [hooked, hook] : script->hooks) {
            if (hooked == function)
                hook(call);
        }
    }
    // A hook may have ordered a failure.
    if (const Script* const script = currentScript.load(std::memory_order_acquire)) {
        for (const Fault& ordered : script->faults) {
            if (!fault && ordered.function == function && ordered.first <= number &&
                number <= ordered.last)
                fault = &ordered;
        }
    }
}

Entry::~Entry()
{
    if (record) {
        record->result.store(result, std::memory_order_relaxed);
        record->state.store(LogRecord::Returned, std::memory_order_release);
    }
}

void stopWith(const char* what, std::string_view detail)
{
    std::fprintf(stderr, "simulated Windows: %s%s%.*s\n", what, detail.empty() ? "" : " ",
                 static_cast<int>(detail.size()), detail.data());
    std::abort();
}

} // namespace internal

using namespace internal;

void reset()
{
    resetMidi();
    resetKernel();
    resetMemory();
    currentScript.store(nullptr, std::memory_order_relaxed);
    scripts.clear();
    for (auto& count : callCounts)
        count.store(0, std::memory_order_relaxed);
    for (std::size_t i = logUsed.exchange(0, std::memory_order_relaxed); i > 0; --i)
        records[i - 1].state.store(LogRecord::Empty, std::memory_order_relaxed);
    logStart.store(0, std::memory_order_relaxed);
    logging.store(true, std::memory_order_relaxed);
}

bool operator==(const Resources& a, const Resources& b)
{
    static_assert(std::has_unique_object_representations_v<Resources>);
    return std::memcmp(&a, &b, sizeof a) == 0;
}

std::ostream& operator<<(std::ostream& stream, const Resources& resources)
{
    return stream << "{handles " << resources.handles << ", heap blocks " << resources.heapBlocks
                  << ", task blocks " << resources.taskBlocks << ", virtual blocks "
                  << resources.virtualBlocks << ", input ports " << resources.inputPorts
                  << ", output ports " << resources.outputPorts << ", input buffers "
                  << resources.inputBuffers << ", output buffers " << resources.outputBuffers
                  << "}";
}

Resources inUse()
{
    Resources resources;
    countKernel(resources);
    countMemory(resources);
    countMidi(resources);
    return resources;
}

void failCall(std::string_view name, unsigned n, std::optional<DWORD> result, unsigned count)
{
    const std::size_t function = functionNamed(name);
    if (function < kCannotFail)
        stopWith("this function cannot fail:", name);
    const std::uint64_t first = callCount(name) + n;
    const Fault fault{function, first, first + count - 1, result};
    changeScript([&](Script& script) { script.faults.push_back(fault); });
}

void clearFailures()
{
    changeScript([](Script& script) { script.faults.clear(); });
}

std::uint64_t callCount(std::string_view function)
{
    return callCounts[functionNamed(function)].load(std::memory_order_relaxed);
}

std::vector<Call> calls(std::string_view function)
{
    const char* const name = function.empty() ? nullptr : kFunctions[functionNamed(function)];
    std::vector<Call> result;
    const std::size_t used = logUsed.load(std::memory_order_relaxed);
    for (std::size_t i = logStart.load(std::memory_order_relaxed); i < used; ++i) {
        const LogRecord& record = records[i];
        const int state = record.state.load(std::memory_order_acquire);
        if (state == LogRecord::Empty || (name && record.call.function != name))
            continue;
        Call& call = result.emplace_back(record.call);
        call.returned = state == LogRecord::Returned;
        call.result = call.returned ? record.result.load(std::memory_order_relaxed) : 0;
    }
    return result;
}

std::vector<std::string> callNames()
{
    std::vector<std::string> names;
    for (const Call& call : calls())
        names.emplace_back(call.function);
    return names;
}

void clearCalls()
{
    logStart.store(logUsed.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void logCalls(bool on)
{
    logging.store(on, std::memory_order_relaxed);
}

void onCall(std::string_view function, std::function<void(const Call&)> hook)
{
    changeScript([&](Script& script) {
        script.hooks.emplace_back(functionNamed(function), std::move(hook));
    });
}

void clearHooks()
{
    changeScript([](Script& script) { script.hooks.clear(); });
}

} // namespace sim
