// The script of the simulated Windows: what a test says about the devices, the failures and the
// clock, and what it asks afterwards.
//
// Every call of the product is served at once and on the calling thread, as Windows would serve it;
// nothing happens by itself unless a test asks for a driver thread. Script functions may be called
// from any thread unless their comment says otherwise. Mistakes in a test (an unknown function
// name, a device that does not exist) end the process with a message.
//
// For ThreadSanitizer: the simulation orders threads only where Windows does, by SetEvent to the
// wait that it releases, by the driver's own lock between handing a buffer in and getting it back,
// and by a reset or close that waits for a callback. Heap calls share a lock, as on Windows.
// Counting, the clock and the call log order nothing; a failure or hook only puts the test that
// ordered it before the call that meets it. No lock is held while a callback or a hook runs. A
// driver thread sets MHDR_DONE with an atomic release store, so a poll of dwFlags must be an atomic
// load.
#pragma once

#include "workbench/device/Settings.h"

#include <atomic>
#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sim {

// ---- The whole ----------------------------------------------------------------------------------

// Back to the fresh state: no devices, no handles, no failures or hooks, counters at zero, log on
// and empty, real time, heap low. What was still in use is released by force, except task memory.
// No other thread may be inside the simulation.
void reset();

// What the product holds at this moment.
struct Resources
{
    int handles = 0;       // open event handles
    int heapBlocks = 0;    // HeapAlloc without HeapFree
    int taskBlocks = 0;    // CoTaskMemAlloc without CoTaskMemFree
    int virtualBlocks = 0; // VirtualAlloc without VirtualFree
    int inputPorts = 0;    // open HMIDIIN
    int outputPorts = 0;   // open HMIDIOUT
    int inputBuffers = 0;  // headers in the queues of open inputs
    int outputBuffers = 0; // headers in the queues of open outputs
};
bool operator==(const Resources& a, const Resources& b);
std::ostream& operator<<(std::ostream& stream, const Resources& resources);

Resources inUse();

// ---- Failures, counters, hooks and the log ------------------------------------------------------
// Functions are named as Windows names them: "midiInAddBuffer", "CreateEventW".

constexpr unsigned kAllFromThere = UINT_MAX;

// The n-th call from now (1 is the next one), and the count - 1 calls behind it, fail without doing
// anything and return `result`; without one MMSYSERR_ERROR, E_FAIL, WAIT_FAILED, null or FALSE, as
// befits the function. Functions that cannot fail (Sleep, timeGetTime, ...) are refused.
void failCall(std::string_view function, unsigned n = 1, std::optional<DWORD> result = {},
              unsigned count = 1);
void clearFailures();

// Calls of one function since reset(), failed ones included.
std::uint64_t callCount(std::string_view function);

struct Call
{
    const char* function = nullptr;
    std::uint64_t handle = 0;        // first handle of the call, or the address freed
    MIDIHDR* header = nullptr;       // may be gone when the log is read
    std::uint64_t arguments[2] = {}; // further arguments in the order of the call
    DWORD headerFlags = 0;           // dwFlags as the call began
    DWORD headerLength = 0;          // dwBufferLength as the call began
    bool returned = false;           // false while the call is still blocked
    std::uint64_t result = 0;        // what it returned
};

// The calls in the order in which they began; all, or those of one function.
std::vector<Call> calls(std::string_view function = {});
// Only the names, in order: handy for comparing sequences.
std::vector<std::string> callNames();
void clearCalls();
// For stress runs. The log holds 131,072 calls and ends the process when it is full.
void logCalls(bool on);

// Runs `hook` on the calling thread before each call of the function does its work: the place to
// let something happen in the middle of a sequence. Hooks see the calls that they make themselves
// too.
void onCall(std::string_view function, std::function<void(const Call&)> hook);
void clearHooks();

// ---- Time ---------------------------------------------------------------------------------------

// From here on timeGetTime is a counter that begins at `now` and that only Sleep moves; Sleep
// returns at once (and yields). Waits with a time-out still take real time.
void useVirtualTime(DWORD now = 1000);
// Virtual time only: Sleep returns this much too late, or, when negative, too early. A Sleep of at
// least 1 ms always takes at least 1 ms.
void setSleepError(int milliseconds);

// ---- Memory -------------------------------------------------------------------------------------
// AddressSanitizer stops the program at an access beside a heap block. Freed ones stay inaccessible
// for a while. Memory not asked to be zeroed is filled with kMemoryFill.
constexpr unsigned char kMemoryFill = 0xA5;

// The heap gives addresses below 4 GB (the default, false) or above them. With `nothingLow`
// VirtualQuery shows the whole range below as taken.
void setHeapHigh(bool high, bool nothingLow = false);

// ---- Events -------------------------------------------------------------------------------------

// The names of the named events that are open, in order of creation.
std::vector<std::u16string> eventNames();
// Whether the event is signalled, without consuming the signal.
bool isSignalled(HANDLE event);

// ---- Devices ------------------------------------------------------------------------------------

// What a device is like, as the model of a driver's port knows it; the clock is the simulation's to
// set, and the script lets messages arrive on its own thread. Windows 11's own driver lets a device
// have several clients; what concerns one port is then done to the first.
using device::Completion;
using device::DriverKind;
using device::Windows11;
using DeviceOptions = device::Settings;

// Add a device and return its index (WinMM's device identifier), while no other thread is inside
// the simulation. The name is cut to 32 characters, of which the last then stands where the
// terminating zero should be.
int addInput(const std::u16string& name, const DeviceOptions& options = {});
int addOutput(const std::u16string& name, const DeviceOptions& options = {});

// Of all devices present, for the ports that are opened from here on.
void setDriverKind(DriverKind kind);

// Pulls the device out, with its ports open or not: nothing arrives, nothing is sent, and it cannot
// be opened (MMSYSERR_NODRIVER); it keeps its place among the devices. A port that the Windows 11
// kind has open refuses every call but the close from then on, keeps its buffers, and refuses to
// close while it has some; ports of other kinds still serve their clients. returnBuffer() and raw()
// go on working, for what was on its way.
void unplugInput(int input);
void unplugOutput(int output);
// All devices are back and can be opened anew. Ports that lost theirs stay lost.
void plugIn();
// Windows 11's driver is unloaded: touches what lost ports kept, and calls back, on this thread.
void unloadDriver();

// ---- Input ------------------------------------------------------------------------------------
// All of these act as the driver: they call the callback on the calling thread and return when it
// has returned. An input that is not started takes no data. Every client of an input gets its copy.
// One thread at a time may inject into one input if the order matters.

// MIM_DATA. False if no started client took it.
bool shortMessage(int input, DWORD packed);
// MIM_LONGDATA: fills the queued buffers in order and returns each when it is full or the bytes
// end. Returns the number of bytes that found a buffer; the rest is lost.
std::size_t sysEx(int input, const void* bytes, std::size_t length);
// Hands the next queued buffer back with any code and any dwBytesRecorded, whether or not the port
// is started. As many of the bytes as fit are copied into it. Null if no buffer is queued.
MIDIHDR* returnBuffer(int input, DWORD bytesRecorded, const void* bytes = nullptr,
                      std::size_t length = 0, UINT code = MIM_LONGDATA);
// Calls the callback with arbitrary arguments, started or not. False if no port is open.
bool raw(int input, UINT message, DWORD parameter1, DWORD parameter2);

std::size_t queuedBuffers(int input);

struct FloodReport
{
    std::uint64_t shortMessages = 0; // taken by the port
    std::uint64_t sysExMessages = 0; // taken whole
};

// A driver thread that injects without end. Messages are numbered from 0 as they are attempted;
// every `sysExEvery`-th is floodSysEx(n, sysExLength), the others are device::floodWord(n). A SysEx
// message is only begun when the buffers queued hold it whole, but a reset may still cut it short.
class Flood
{
public:
    Flood(int input, unsigned sysExEvery, std::size_t sysExLength = 5000);
    ~Flood() { stop(); }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    FloodReport stop(); // waits for the thread

private:
    std::atomic<bool> stopping{false};
    FloodReport report; // the thread's own until it is joined
    std::thread thread;
};

// F0 7D, n in four 7-bit bytes, lowest first, then as device::dumpByte(). At least 8 bytes.
std::vector<unsigned char> floodSysEx(std::uint64_t n, std::size_t length);

// ---- Output -------------------------------------------------------------------------------------

struct Sent
{
    bool isShort = false; // sent by midiOutShortMsg; bytes then holds the 4 bytes of the word
    std::vector<unsigned char> bytes;
    DWORD time = 0; // timeGetTime as it was accepted
    const MIDIHDR* header = nullptr;
};
// What the output has accepted since reset() or clearSent(), in order.
std::vector<Sent> sent(int output);
void clearSent(int output);

void setCompletion(int output, Completion completion);
// Finishes the oldest send that is not: MHDR_DONE, then MOM_DONE on the calling thread. Null if
// there is none.
MIDIHDR* completeOutput(int output);
// Calls the output callback with arbitrary arguments. False if no port is open.
bool rawOutput(int output, UINT message, DWORD parameter1, DWORD parameter2);

// The service behind an output of the Windows 11 kind takes nothing: sends run into their time-out.
void stallOutput(int output, bool on);

// What the output finishes arrives at the input, before its MOM_DONE: SysEx through the buffers,
// everything else as short messages, as a lead from one socket to the other would do it.
void connect(int output, int input);

} // namespace sim
