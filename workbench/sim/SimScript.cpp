// Failures, counters, hooks and the call log.
#include "SimInternal.h"

#include "objbase.h"
#include "workbench/device/Header.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <ostream>
#include <tuple>

namespace sim {
namespace internal {

namespace {

// How a function fails: with what, unless the test says otherwise, and whether it returns that or
// leaves it to GetLastError.
struct Failure
{
    DWORD usual;
    bool isReturned;
    bool isPossible = true;
};

constexpr Failure Null{ERROR_NOT_ENOUGH_MEMORY, false};
constexpr Failure Wait{WAIT_FAILED, true};
constexpr Failure Com{DWORD(E_FAIL), true};
constexpr Failure Multimedia{MMSYSERR_ERROR, true};
constexpr Failure Never{0, false, false};

struct FunctionInfo
{
    const char* name;
    Failure failure;
};

constexpr FunctionInfo kFunctions[] = {
#define SIM_INFO(name, failure) {#name, failure},
    SIM_FUNCTIONS(SIM_INFO)
#undef SIM_INFO
};

constexpr std::size_t kFunctionCount = std::size(kFunctions);

Function functionNamed(std::string_view name)
{
    for (std::size_t i = 0; i < kFunctionCount; ++i) {
        if (name == kFunctions[i].name)
            return static_cast<Function>(i);
    }
    stopWith("no simulated function has the name", name);
}

const FunctionInfo& infoOf(Function function)
{
    return kFunctions[static_cast<std::size_t>(function)];
}

std::array<std::atomic<std::uint64_t>, kFunctionCount> callCounts{};

std::atomic<std::uint64_t>& countOf(Function function)
{
    return callCounts[static_cast<std::size_t>(function)];
}

struct Fault
{
    Function function;
    std::uint64_t first;
    std::uint64_t last;
    DWORD result;
};

struct Hook
{
    Function function;
    std::function<void(const Call&)> run;
};

// What the test has ordered. A published script never changes, so calls read it without a lock; an
// old one is kept until reset(), as a call may still be reading it.
struct Script
{
    std::vector<Fault> faults;
    std::vector<std::shared_ptr<const Hook>> hooks;
};

std::mutex scriptLock; // guards scripts
std::vector<std::unique_ptr<const Script>> scripts;
std::atomic<const Script*> currentScript{nullptr}; // null: nothing ordered

template <typename Change>
void changeScript(Change change)
{
    const std::lock_guard<std::mutex> guard(scriptLock);
    const Script* const old = currentScript.load(std::memory_order_relaxed);
    auto script = old ? std::make_unique<Script>(*old) : std::make_unique<Script>();
    change(*script);
    const bool empty = script->faults.empty() && script->hooks.empty();
    scripts.push_back(std::move(script));
    currentScript.store(empty ? nullptr : scripts.back().get(), std::memory_order_release);
}

std::atomic<std::uint64_t> threadsSeen{0};

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

constexpr std::size_t kLogCapacity = std::size_t(1) << 20;

std::atomic<bool> logging{true};
std::atomic<std::size_t> logUsed{0};
// Where calls() begins. Records before it are not used again until reset(), as a call that is still
// blocked will come back to its record.
std::atomic<std::size_t> logStart{0};

// All zero, so that the kernel backs only what is written.
LogRecord records[kLogCapacity];

void emptyLog()
{
    const std::size_t used = std::min(logUsed.load(std::memory_order_acquire), kLogCapacity);
    for (std::size_t i = 0; i < used; ++i)
        records[i].state.store(LogRecord::Empty, std::memory_order_relaxed);
    logUsed.store(0, std::memory_order_release);
    logStart.store(0, std::memory_order_release);
}

} // namespace

Entry::Entry(Function function, const void* handle, MIDIHDR* header, std::uint64_t argument1,
             std::uint64_t argument2)
{
    const std::uint64_t number = countOf(function).fetch_add(1, std::memory_order_relaxed) + 1;
    const bool log = logging.load(std::memory_order_relaxed);
    const bool scripted = currentScript.load(std::memory_order_relaxed) != nullptr;
    if (!log && !scripted)
        return;

    Call call;
    call.function = infoOf(function).name;
    call.handle = reinterpret_cast<std::uintptr_t>(handle);
    call.header = header;
    call.arguments[0] = argument1;
    call.arguments[1] = argument2;
    if (header) {
        call.headerFlags = device::flagsOf(*header);
        call.headerLength = header->dwBufferLength;
    }
    call.thread = currentThread();
    if (log) {
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

Entry::~Entry()
{
    if (record) {
        record->result.store(result, std::memory_order_relaxed);
        record->state.store(LogRecord::Returned, std::memory_order_release);
    }
}

void Entry::consultScript(Function function, const Call& call, std::uint64_t number)
{
    if (const Script* const script = currentScript.load(std::memory_order_acquire)) {
        for (const auto& hook : script->hooks) {
            if (hook->function == function)
                hook->run(call);
        }
    }
    // A hook may have ordered a failure.
    const Script* const script = currentScript.load(std::memory_order_acquire);
    if (!script)
        return;
    for (const Fault& fault : script->faults) {
        if (fault.function == function && number >= fault.first && number <= fault.last) {
            failing = true;
            failure = fault.result;
            returnsFailure = infoOf(function).failure.isReturned;
            return;
        }
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
    {
        const std::lock_guard<std::mutex> guard(scriptLock);
        scripts.clear();
    }
    for (auto& count : callCounts)
        count.store(0, std::memory_order_relaxed);
    emptyLog();
    logging.store(true, std::memory_order_relaxed);
}

static auto all(const Resources& r)
{
    return std::tie(r.handles, r.heapBlocks, r.taskBlocks, r.virtualBlocks, r.inputPorts,
                    r.outputPorts, r.inputBuffers, r.outputBuffers);
}

bool operator==(const Resources& a, const Resources& b)
{
    return all(a) == all(b);
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
    const Failure& failure = infoOf(function).failure;
    if (!failure.isPossible)
        stopWith("this function cannot fail:", name);
    if (n < 1 || count < 1)
        stopWith("calls are counted from 1");
    const std::uint64_t first = countOf(function).load(std::memory_order_relaxed) + n;
    const std::uint64_t last = count == kAllFromThere ? UINT64_MAX : first + (count - 1);
    changeScript([&](Script& script) {
        script.faults.push_back({function, first, last, result.value_or(failure.usual)});
    });
}

void clearFailures()
{
    changeScript([](Script& script) { script.faults.clear(); });
}

std::uint64_t callCount(std::string_view function)
{
    return countOf(functionNamed(function)).load(std::memory_order_relaxed);
}

std::vector<Call> calls(std::string_view function)
{
    const char* const name = function.empty() ? nullptr : infoOf(functionNamed(function)).name;
    std::vector<Call> result;
    const std::size_t used = std::min(logUsed.load(std::memory_order_acquire), kLogCapacity);
    for (std::size_t i = logStart.load(std::memory_order_acquire); i < used; ++i) {
        const LogRecord& record = records[i];
        const int state = record.state.load(std::memory_order_acquire);
        if (state == LogRecord::Empty || (name && record.call.function != name))
            continue;
        Call call = record.call;
        call.returned = state == LogRecord::Returned;
        call.result = call.returned ? record.result.load(std::memory_order_relaxed) : 0;
        result.push_back(call);
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
    logStart.store(logUsed.load(std::memory_order_acquire), std::memory_order_release);
}

void logCalls(bool on)
{
    logging.store(on, std::memory_order_relaxed);
}

std::uint64_t currentThread()
{
    thread_local const std::uint64_t number =
        threadsSeen.fetch_add(1, std::memory_order_relaxed) + 1;
    return number;
}

void onCall(std::string_view function, std::function<void(const Call&)> hook)
{
    auto entry = std::make_shared<const Hook>(Hook{functionNamed(function), std::move(hook)});
    changeScript([&](Script& script) { script.hooks.push_back(std::move(entry)); });
}

void onSleep(std::function<void(DWORD)> hook)
{
    changeScript([](Script& script) {
        auto& hooks = script.hooks;
        hooks.erase(std::remove_if(hooks.begin(), hooks.end(),
                                   [](const auto& h) { return h->function == Function::Sleep; }),
                    hooks.end());
    });
    if (hook)
        onCall("Sleep", [hook](const Call& call) { hook(static_cast<DWORD>(call.arguments[0])); });
}

void clearHooks()
{
    changeScript([](Script& script) { script.hooks.clear(); });
}

} // namespace sim
