// The simulated WinMM and its drivers: devices and their open ports.
//
// A port has a lock of its own, which guards its queue and hands the data of a header over between
// the threads; it is never held while a callback runs. Ports live until reset(), open or not, so
// that a late callback or a stale handle always meets valid memory.
#pragma once

#include "SimInternal.h"
#include "SimWire.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <sched.h>
#include <thread>

namespace sim::internal {

constexpr std::size_t kMaximumDevices = 1024;
constexpr std::size_t kMaximumClients = 8;
constexpr std::size_t kMaximumPorts = std::size_t(1) << 18; // opened between two resets

inline DWORD low32(const void* address)
{
    return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(address));
}

template <typename Handle>
struct Messages;

template <>
struct Messages<HMIDIIN>
{
    static constexpr UINT open = MIM_OPEN;
    static constexpr UINT close = MIM_CLOSE;
    static constexpr UINT longDone = MIM_LONGDATA;
    static constexpr std::uintptr_t firstHandle = 0x10000000;
};

template <>
struct Messages<HMIDIOUT>
{
    static constexpr UINT open = MOM_OPEN;
    static constexpr UINT close = MOM_CLOSE;
    static constexpr UINT longDone = MOM_DONE;
    static constexpr std::uintptr_t firstHandle = 0x20000000;
};

template <typename Handle>
struct Device;

// What one successful open made.
template <typename Handle>
struct Port
{
    using Procedure = void(CALLBACK*)(Handle, UINT, DWORD_PTR, DWORD, DWORD);

    Port(Device<Handle>& openedDevice, DWORD_PTR callback, DWORD_PTR instanceValue)
        : device(openedDevice), procedure(reinterpret_cast<Procedure>(callback)),
          instance(instanceValue)
    {}

    void call(UINT message, DWORD parameter1, DWORD parameter2) const
    {
        if (procedure)
            procedure(handle, message, instance, parameter1, parameter2);
    }

    // Milliseconds since the start of the input, as the driver stamps its messages.
    DWORD stamp() const { return now() - startTime.load(std::memory_order_relaxed); }

    Device<Handle>& device;
    const Procedure procedure; // null for CALLBACK_NULL
    const DWORD_PTR instance;
    Handle handle{};

    std::atomic<bool> isOpen{true};
    std::atomic<bool> isStarted{false}; // inputs only
    std::atomic<DWORD> startTime{0};
    std::atomic<int> callbacksInProgress{0};

    std::mutex lock; // guards queue, and the headers in it
    std::deque<MIDIHDR*> queue;
};

// ---- Callbacks in progress ----------------------------------------------------------------------

// Counts a callback for as long as it runs. Constructed before the port is looked at, so that
// whoever stops the port and then waits for the count cannot miss a callback that saw it running.
class CallbackInProgress
{
public:
    explicit CallbackInProgress(std::atomic<int>& portCount,
                                std::memory_order order = std::memory_order_seq_cst)
        : count(portCount), outer(innermost)
    {
        count.fetch_add(1, order);
        innermost = this;
    }

    ~CallbackInProgress()
    {
        innermost = outer;
        count.fetch_sub(1, std::memory_order_release);
    }

    // For the callbacks that WinMM makes inside a call of the client: counting them must not order
    // that call behind callbacks which it does not wait for.
    static constexpr std::memory_order kUnordered = std::memory_order_relaxed;

    CallbackInProgress(const CallbackInProgress&) = delete;
    CallbackInProgress& operator=(const CallbackInProgress&) = delete;

    // Until only those callbacks are left that the calling thread itself is inside of.
    static void waitForOthers(const std::atomic<int>& count)
    {
        int own = 0;
        for (const CallbackInProgress* c = innermost; c; c = c->outer)
            own += &c->count == &count;
        for (int round = 0; count.load() > own; ++round) {
            if (round < 100)
                sched_yield();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }

private:
    inline static thread_local CallbackInProgress* innermost = nullptr;

    std::atomic<int>& count;
    CallbackInProgress* const outer;
};

// ---- Devices ------------------------------------------------------------------------------------

template <typename Handle>
struct Device
{
    Device(const std::u16string& deviceName, const DeviceOptions& deviceOptions)
        : name(deviceName.substr(0, MAXPNAMELEN)), options(deviceOptions), kind(deviceOptions.kind),
          completion(deviceOptions.completion)
    {}

    const std::u16string name;
    const DeviceOptions options;
    std::atomic<DriverKind> kind;

    std::mutex opening; // taken to open and to close
    std::array<std::atomic<Port<Handle>*>, kMaximumClients> clients{};

    // Outputs only from here on.
    std::atomic<Completion> completion;
    std::atomic<int> connectedInput{-1};
    std::mutex sentLock; // guards sentMessages
    std::vector<Sent> sentMessages;
    std::mutex wireLock; // guards wire
    WireParser wire;
    std::mutex driverLock; // guards the three below
    std::condition_variable driverWakes;
    unsigned driverWork = 0;
    bool driverEnds = false;
    std::thread driver;
};

// The devices and open ports of one direction.
template <typename Handle>
struct Direction
{
    std::array<std::atomic<Device<Handle>*>, kMaximumDevices> devices{};
    std::atomic<unsigned> deviceCount{0};
    std::array<std::atomic<Port<Handle>*>, kMaximumPorts> ports{};
    std::atomic<std::size_t> portCount{0};
    std::atomic<int> openPorts{0};
};

inline Direction<HMIDIIN> inputDirection;
inline Direction<HMIDIOUT> outputDirection;

inline Direction<HMIDIIN>& directionOf(HMIDIIN)
{
    return inputDirection;
}

inline Direction<HMIDIOUT>& directionOf(HMIDIOUT)
{
    return outputDirection;
}

template <typename Handle>
Device<Handle>* findDevice(UINT_PTR index)
{
    auto& direction = directionOf(Handle{});
    if (index >= direction.deviceCount.load(std::memory_order_acquire))
        return nullptr;
    return direction.devices[index].load(std::memory_order_acquire);
}

template <typename Handle>
Device<Handle>& scriptedDevice(int index)
{
    Device<Handle>* const device = index < 0 ? nullptr : findDevice<Handle>(unsigned(index));
    if (!device)
        stopWith("there is no device", std::to_string(index));
    return *device;
}

// The open port of a handle, or null.
template <typename Handle>
Port<Handle>* findPort(Handle handle)
{
    auto& direction = directionOf(handle);
    const std::uintptr_t value = reinterpret_cast<std::uintptr_t>(handle);
    const std::uintptr_t first = Messages<Handle>::firstHandle;
    if (value < first || (value - first) % 4 != 0 || (value - first) / 4 >= kMaximumPorts)
        return nullptr;
    Port<Handle>* const port = direction.ports[(value - first) / 4].load(std::memory_order_acquire);
    return port && port->isOpen.load() ? port : nullptr;
}

// Calls action(port) for each open client.
template <typename Handle, typename Action>
void forEachClient(Device<Handle>& device, Action action)
{
    for (auto& client : device.clients) {
        if (Port<Handle>* const port = client.load(std::memory_order_acquire))
            action(*port);
    }
}

template <typename Handle>
Port<Handle>* firstClient(Device<Handle>& device)
{
    Port<Handle>* first = nullptr;
    forEachClient(device, [&](Port<Handle>& port) { first = first ? first : &port; });
    return first;
}

// ---- The parts for each other -------------------------------------------------------------------

// Marks a header that has left the queue. Inputs tell how much they have put into it.
inline void finish(MIDIHDR& header)
{
    setFlags(header, (flagsOf(header) & ~MHDR_INQUEUE) | MHDR_DONE);
}

// Keeps what an output accepts, for sent().
void noteSent(Device<HMIDIOUT>& device, bool isShort, const void* bytes, std::size_t length,
              const MIDIHDR* header);
// Finishes a queued send now or later, as the device is told to.
void finishAsOrdered(Port<HMIDIOUT>& port);

// Stop the driver threads.
void endFloods();
void endDriver(Device<HMIDIOUT>& device);

// Logs the call, then serves it unless it is to fail.
template <typename Serve>
MMRESULT served(Entry&& entry, Serve serve)
{
    return entry.returns(entry.fails() ? MMRESULT{entry.failure()} : serve());
}

} // namespace sim::internal
