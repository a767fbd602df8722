// Shared by the parts of the simulation; not for tests.
#pragma once

#include "Sim.h"

#include <type_traits>

// Every simulated function, and what it gives back when a test makes it fail.
#define SIM_FUNCTIONS(X)                                                                           \
    X(CreateEventW, Null)                                                                          \
    X(SetEvent, Null)                                                                              \
    X(ResetEvent, Null)                                                                            \
    X(CloseHandle, Null)                                                                           \
    X(WaitForSingleObject, Wait)                                                                   \
    X(WaitForMultipleObjects, Wait)                                                                \
    X(GetModuleHandleExW, Null)                                                                    \
    X(GetLastError, Never)                                                                         \
    X(Sleep, Never)                                                                                \
    X(GetProcessHeap, Null)                                                                        \
    X(HeapAlloc, Null)                                                                             \
    X(HeapFree, Null)                                                                              \
    X(VirtualAlloc, Null)                                                                          \
    X(VirtualFree, Null)                                                                           \
    X(VirtualQuery, Null)                                                                          \
    X(CoTaskMemAlloc, Null)                                                                        \
    X(CoTaskMemFree, Never)                                                                        \
    X(CoCreateGuid, Com)                                                                           \
    X(timeGetTime, Never)                                                                          \
    X(midiInGetNumDevs, Null)                                                                      \
    X(midiInGetDevCapsW, Multimedia)                                                               \
    X(midiInOpen, Multimedia)                                                                      \
    X(midiInClose, Multimedia)                                                                     \
    X(midiInStart, Multimedia)                                                                     \
    X(midiInStop, Multimedia)                                                                      \
    X(midiInReset, Multimedia)                                                                     \
    X(midiInPrepareHeader, Multimedia)                                                             \
    X(midiInUnprepareHeader, Multimedia)                                                           \
    X(midiInAddBuffer, Multimedia)                                                                 \
    X(midiOutGetNumDevs, Null)                                                                     \
    X(midiOutGetDevCapsW, Multimedia)                                                              \
    X(midiOutOpen, Multimedia)                                                                     \
    X(midiOutClose, Multimedia)                                                                    \
    X(midiOutReset, Multimedia)                                                                    \
    X(midiOutPrepareHeader, Multimedia)                                                            \
    X(midiOutUnprepareHeader, Multimedia)                                                          \
    X(midiOutLongMsg, Multimedia)                                                                  \
    X(midiOutShortMsg, Multimedia)

namespace sim::internal {

enum class Function {
#define SIM_NAME(name, failure) name,
    SIM_FUNCTIONS(SIM_NAME)
#undef SIM_NAME
};

// A failure that the test has ordered.
struct Fault
{
    Function function;
    std::uint64_t first; // calls since reset()
    std::uint64_t last;
    DWORD result;
    bool isReturned; // else null or FALSE is, and the result is left to GetLastError
};

struct LogRecord;

void setLastError(DWORD error);

// Every simulated function is one: counts the call, logs it, runs the hooks and looks whether the
// script wants it to fail.
class Entry
{
public:
    explicit Entry(Function function, const void* handle = nullptr, MIDIHDR* header = nullptr,
                   std::uint64_t argument1 = 0, std::uint64_t argument2 = 0);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    // Does the call's work, unless the script wants the call to fail. Notes the result in the log.
    template <typename Work>
    auto serve(Work work)
    {
        using Result = decltype(work());
        const Result value = fault ? failed<Result>() : work();
        if constexpr (std::is_pointer_v<Result>)
            result = reinterpret_cast<std::uintptr_t>(value);
        else
            result = static_cast<std::uint64_t>(value);
        return value;
    }

private:
    void consultScript(Function function, const Call& call, std::uint64_t number);

    // By the result itself, or by null or FALSE and the last error.
    template <typename Result>
    Result failed() const
    {
        if constexpr (!std::is_pointer_v<Result>) {
            if (fault->isReturned)
                return static_cast<Result>(fault->result);
        }
        setLastError(fault->result);
        return Result{};
    }

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

// A mistake in the test or an exhausted simulation: says so and ends the process.
[[noreturn]] void stopWith(const char* what, std::string_view detail = {});

} // namespace sim::internal
