// Shared by the parts of the simulation; not for tests.
#pragma once

#include "Sim.h"

#include <array>
#include <type_traits>

namespace sim::internal {

// A mistake in the test or an exhausted simulation: says so and ends the process.
[[noreturn]] void stopWith(const char* what, std::string_view detail = {});

template <typename... Names>
constexpr std::array<const char*, sizeof...(Names)> list(Names... names)
{
    return {names...};
}

// Every simulated function. The first kCannotFail of them cannot fail.
constexpr auto kFunctions =
    list("CoTaskMemFree", "GetLastError", "Sleep", "timeGetTime", "CloseHandle", "CoCreateGuid",
         "CoTaskMemAlloc", "CreateEventW", "GetModuleHandleExW", "GetProcessHeap", "HeapAlloc",
         "HeapFree", "ResetEvent", "SetEvent", "VirtualAlloc", "VirtualFree", "VirtualQuery",
         "WaitForMultipleObjects", "WaitForSingleObject", "midiInAddBuffer", "midiInClose",
         "midiInGetDevCapsW", "midiInGetNumDevs", "midiInOpen", "midiInPrepareHeader",
         "midiInReset", "midiInStart", "midiInStop", "midiInUnprepareHeader", "midiOutClose",
         "midiOutGetDevCapsW", "midiOutGetNumDevs", "midiOutLongMsg", "midiOutOpen",
         "midiOutPrepareHeader", "midiOutReset", "midiOutShortMsg", "midiOutUnprepareHeader");
constexpr std::size_t kCannotFail = 4;

// Its place among them.
constexpr std::size_t functionNamed(std::string_view name)
{
    for (std::size_t i = 0; i < kFunctions.size(); ++i) {
        if (kFunctions[i] == name)
            return i;
    }
    stopWith("no simulated function has the name", name);
}

// At compile time.
#define SIM_FUNCTION(name) std::integral_constant<std::size_t, functionNamed(#name)>::value

// A failure that the test has ordered.
struct Fault
{
    std::size_t function;
    std::uint64_t first; // calls since reset()
    std::uint64_t last;
    std::optional<std::uint64_t> result;
};

struct LogRecord;

// Every simulated function is one: counts the call, logs it, runs the hooks and looks whether the
// script wants it to fail.
class Entry
{
public:
    explicit Entry(std::size_t function, const void* handle = nullptr, MIDIHDR* header = nullptr,
                   std::uint64_t argument1 = 0, std::uint64_t argument2 = 0);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    // Does the call's work, unless the script wants the call to fail: with the result that it asks
    // for, or else with `failure`. Notes the result in the log.
    template <typename Work>
    auto serve(Work work, std::uint64_t failure = 0)
    {
        using Result = decltype(work());
        const Result value = fault ? Result(fault->result.value_or(failure)) : work();
        result = std::uint64_t(value);
        return value;
    }

private:
    void consultScript(std::size_t function, const Call& call, std::uint64_t number);

    LogRecord* record = nullptr; // null: not logged
    std::uint64_t result = 0;
    const Fault* fault = nullptr; // the script wants the call to fail
};

// timeGetTime without the log.
DWORD now();

void countKernel(Resources& resources);
void countMemory(Resources& resources);
void countMidi(Resources& resources);

void resetKernel();
void resetMemory();
void resetMidi();

} // namespace sim::internal
