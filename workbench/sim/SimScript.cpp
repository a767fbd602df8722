// Failures, counters, hooks and the call log.
#include "SimInternal.h"

#include "objbase.h"
#include "workbench/device/Port.h"

#include <algorithm>
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

// How a function fails unless the test says otherwise.
struct Failure
{
    DWORD usual; // 0: it cannot fail
    bool isReturned = false;
};

constexpr Failure Null{ERROR_NOT_ENOUGH_MEMORY};
constexpr Failure Wait{WAIT_FAILED, true};
constexpr Failure Com{DWORD(E_FAIL), true};
constexpr Failure Multimedia{MMSYSERR_ERROR, true};
constexpr Failure Never{0};

struct FunctionState
{
    const char* name;
    Failure failure;
    std::atomic<std::uint64_t> calls{0};
};

FunctionState functions[] = {
#define SIM_STATE(name, failure) {#name, failure},
    SIM_FUNCTIONS(SIM_STATE)
#undef SIM_STATE
};

FunctionState& stateOf(Function function)
{
    return functions[static_cast<std::size_t>(function)];
}

Function functionNamed(std::string_view name)
{
    const auto* const found = std::find_if(std::begin(functions), std::end(functions),
                                           [&](const auto& state) { return state.name == name; });
    if (found == std::end(functions))
        stopWith("no simulated function has the name", name);
    return static_cast<Function>(found - functions);
}

// What the test has ordered. A published script never changes, so calls read it without a lock; an
// old one is kept until reset(), as a call may still be reading it.
struct Script
{
    std::vector<Fault> faults;
    std::vector<std::pair<Function, std::function<void(const Call&)>>> hooks;
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

Entry::Entry(Function function, const void* handle, MIDIHDR* header, std::uint64_t argument1,
             std::uint64_t argument2)
{
    FunctionState& state = stateOf(function);
    const std::uint64_t number = state.calls.fetch_add(1, std::memory_order_relaxed) + 1;
    const bool logs = logging.load(std::memory_order_relaxed);
    const bool scripted = currentScript.load(std::memory_order_relaxed) != nullptr;
    if (!logs && !scripted)
        return;

    Call call;
    call.function = state.name;
    call.handle = reinterpret_cast<std::uintptr_t>(handle);
    call.header = header;
    call.arguments[0] = argument1;
    call.arguments[1] = argument2;
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

void Entry::consultScript(Function function, const Call& call, std::uint64_t number)
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
    for (FunctionState& state : functions)
        state.calls.store(0, std::memory_order_relaxed);
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
    const Function function = functionNamed(name);
    const auto& [usual, isReturned] = stateOf(function).failure;
    if (usual == 0)
        stopWith("this function cannot fail:", name);
    const std::uint64_t first = callCount(name) + n;
    const std::uint64_t last = count == kAllFromThere ? UINT64_MAX : first + (count - 1);
    const Fault fault{function, first, last, result.value_or(usual), isReturned};
    changeScript([&](Script& script) { script.faults.push_back(fault); });
}

void clearFailures()
{
    changeScript([](Script& script) { script.faults.clear(); });
}

std::uint64_t callCount(std::string_view function)
{
    return stateOf(functionNamed(function)).calls.load(std::memory_order_relaxed);
}

std::vector<Call> calls(std::string_view function)
{
    const char* const name = function.empty() ? nullptr : stateOf(functionNamed(function)).name;
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
