// The simulated WinMM and its drivers: devices, ports, headers and callbacks.
//
// A port has a lock of its own, which guards its queue and hands the data of a header over between
// the threads; it is never held while a callback runs. Ports live until reset(), open or not, so
// that a late callback or a stale handle always meets valid memory.
#include "SimInternal.h"

#include "SimWire.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <sched.h>
#include <thread>

namespace sim {
namespace internal {

namespace {

constexpr std::size_t kMaximumDevices = 1024;
constexpr std::size_t kMaximumClients = 8;
constexpr std::size_t kMaximumPorts = std::size_t(1) << 18; // opened between two resets

DWORD low32(const void* address)
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
    explicit CallbackInProgress(std::atomic<int>& portCount) : count(portCount), outer(innermost)
    {
        count.fetch_add(1);
        innermost = this;
    }

    ~CallbackInProgress()
    {
        innermost = outer;
        count.fetch_sub(1);
    }

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
    static thread_local CallbackInProgress* innermost;

    std::atomic<int>& count;
    CallbackInProgress* const outer;
};

thread_local CallbackInProgress* CallbackInProgress::innermost = nullptr;

// ---- Devices ------------------------------------------------------------------------------------

template <typename Handle>
struct Device
{
    Device(const std::u16string& deviceName, const DeviceOptions& deviceOptions)
        : name(deviceName.substr(0, MAXPNAMELEN - 1)), options(deviceOptions),
          kind(deviceOptions.kind), completion(deviceOptions.completion)
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

Direction<HMIDIIN> inputDirection;
Direction<HMIDIOUT> outputDirection;

Direction<HMIDIIN>& directionOf(HMIDIIN)
{
    return inputDirection;
}

Direction<HMIDIOUT>& directionOf(HMIDIOUT)
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

template <typename Handle>
int addDevice(const std::u16string& name, const DeviceOptions& options)
{
    auto& direction = directionOf(Handle{});
    const unsigned index = direction.deviceCount.load();
    if (index >= kMaximumDevices || options.maximumClients > kMaximumClients)
        stopWith("too many devices or clients");
    direction.devices[index].store(new Device<Handle>(name, options), std::memory_order_release);
    direction.deviceCount.store(index + 1, std::memory_order_release);
    return static_cast<int>(index);
}

template <typename Handle, typename Capabilities>
MMRESULT capabilities(UINT_PTR index, Capabilities* target, UINT size)
{
    if (!target)
        return MMSYSERR_INVALPARAM;
    const Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (device->options.capsResult != MMSYSERR_NOERROR)
        return device->options.capsResult;
    Capabilities found{};
    found.vDriverVersion = 0x0100;
    std::copy(device->name.begin(), device->name.end(), found.szPname);
    std::memcpy(target, &found, std::min<std::size_t>(size, sizeof found));
    return MMSYSERR_NOERROR;
}

// ---- Open and close -----------------------------------------------------------------------------

template <typename Handle>
MMRESULT openPort(Handle* handle, UINT index, DWORD_PTR callback, DWORD_PTR instance, DWORD flags)
{
    if (!handle)
        return MMSYSERR_INVALPARAM;
    const DWORD type = flags & CALLBACK_TYPEMASK;
    if (type != CALLBACK_FUNCTION && type != CALLBACK_NULL)
        return MMSYSERR_INVALFLAG;
    if (type == CALLBACK_FUNCTION && callback == 0)
        return MMSYSERR_INVALPARAM;
    Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (device->options.openResult != MMSYSERR_NOERROR)
        return device->options.openResult;

    auto& direction = directionOf(Handle{});
    Port<Handle>* port = nullptr;
    {
        const std::lock_guard<std::mutex> guard(device->opening);
        const auto end = device->clients.begin() + device->options.maximumClients;
        const auto place = std::find(device->clients.begin(), end, nullptr);
        if (place == end)
            return MMSYSERR_ALLOCATED;
        const std::size_t number = direction.portCount.fetch_add(1);
        if (number >= kMaximumPorts)
            stopWith("out of ports; reset() makes them anew");
        port = new Port<Handle>(*device, type == CALLBACK_FUNCTION ? callback : 0, instance);
        port->handle = reinterpret_cast<Handle>(Messages<Handle>::firstHandle + number * 4);
        direction.ports[number].store(port, std::memory_order_release);
        place->store(port, std::memory_order_release);
    }
    direction.openPorts.fetch_add(1, std::memory_order_relaxed);
    *handle = port->handle;
    const CallbackInProgress inProgress(port->callbacksInProgress);
    port->call(Messages<Handle>::open, 0, 0);
    return MMSYSERR_NOERROR;
}

template <typename Handle>
MMRESULT closePort(Handle handle)
{
    Port<Handle>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    {
        const std::lock_guard<std::mutex> guard(port->lock);
        if (!port->queue.empty())
            return MIDIERR_STILLPLAYING;
        if (!port->isOpen.exchange(false))
            return MMSYSERR_INVALHANDLE;
        port->isStarted.store(false);
        port->queue.shrink_to_fit();
    }
    {
        const std::lock_guard<std::mutex> guard(port->device.opening);
        std::replace(port->device.clients.begin(), port->device.clients.end(), port,
                     static_cast<Port<Handle>*>(nullptr));
    }
    directionOf(handle).openPorts.fetch_sub(1, std::memory_order_relaxed);
    if (port->device.kind.load(std::memory_order_relaxed) == DriverKind::WaitsInClose)
        CallbackInProgress::waitForOthers(port->callbacksInProgress);
    const CallbackInProgress inProgress(port->callbacksInProgress);
    port->call(Messages<Handle>::close, 0, 0);
    return MMSYSERR_NOERROR;
}

// ---- Headers ------------------------------------------------------------------------------------

// Marks a header that has left the queue. Inputs tell how much they have put into it.
void finish(MIDIHDR& header)
{
    setFlags(header, (flagsOf(header) & ~MHDR_INQUEUE) | MHDR_DONE);
}

template <typename Handle>
MMRESULT prepare(Handle handle, MIDIHDR* header, UINT size)
{
    if (!header || size < sizeof(MIDIHDR))
        return MMSYSERR_INVALPARAM;
    if (!findPort(handle))
        return MMSYSERR_INVALHANDLE;
    if (!header->lpData || header->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if (flagsOf(*header) & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    setFlags(*header, (flagsOf(*header) | MHDR_PREPARED) & ~MHDR_DONE);
    return MMSYSERR_NOERROR;
}

template <typename Handle>
MMRESULT unprepare(Handle handle, MIDIHDR* header, UINT size)
{
    if (!header || size < sizeof(MIDIHDR))
        return MMSYSERR_INVALPARAM;
    if (!findPort(handle))
        return MMSYSERR_INVALHANDLE;
    const DWORD flags = flagsOf(*header);
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    setFlags(*header, flags & ~MHDR_PREPARED);
    return MMSYSERR_NOERROR;
}

// Puts a prepared header into the port's queue. The port's lock hands its contents to the driver.
template <typename Handle>
MMRESULT enqueue(Handle handle, MIDIHDR* header, UINT size)
{
    if (!header || size < sizeof(MIDIHDR))
        return MMSYSERR_INVALPARAM;
    Port<Handle>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    const std::lock_guard<std::mutex> guard(port->lock);
    if (!port->isOpen.load())
        return MMSYSERR_INVALHANDLE;
    const DWORD flags = flagsOf(*header);
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    if ((flags & MHDR_PREPARED) == 0)
        return MIDIERR_UNPREPARED;
    if (!header->lpData || header->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if constexpr (std::is_same_v<Handle, HMIDIIN>)
        header->dwBytesRecorded = 0;
    setFlags(*header, (flags & ~MHDR_DONE) | MHDR_INQUEUE);
    port->queue.push_back(header);
    return MMSYSERR_NOERROR;
}

// Stops the port and hands every queued header back, in order.
template <typename Handle>
MMRESULT resetPort(Handle handle)
{
    Port<Handle>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    port->isStarted.store(false);
    if (port->device.kind.load(std::memory_order_relaxed) == DriverKind::WaitsInReset)
        CallbackInProgress::waitForOthers(port->callbacksInProgress);
    std::deque<MIDIHDR*> returned;
    {
        const std::lock_guard<std::mutex> guard(port->lock);
        returned.swap(port->queue);
        for (MIDIHDR* header : returned) {
            if constexpr (std::is_same_v<Handle, HMIDIIN>)
                header->dwBytesRecorded = 0;
            finish(*header);
        }
    }
    const CallbackInProgress inProgress(port->callbacksInProgress);
    for (const MIDIHDR* header : returned)
        port->call(Messages<Handle>::longDone, low32(header), port->stamp());
    return MMSYSERR_NOERROR;
}

// ---- Input --------------------------------------------------------------------------------------

// A header taken from the queue and filled.
struct Filled
{
    MIDIHDR* header; // null if none was queued; its owner may use it again at any time
    std::size_t count;
};

// Takes the next queued header and fills it, all under the lock: once a reset has returned, no
// driver thread touches a header any more, whatever callbacks are still in progress.
Filled fillNext(Port<HMIDIIN>& port, const unsigned char* bytes, std::size_t length,
                bool onlyIfStarted, const DWORD* recorded)
{
    const std::lock_guard<std::mutex> guard(port.lock);
    if (port.queue.empty() || (onlyIfStarted && !port.isStarted.load()))
        return {nullptr, 0};
    MIDIHDR* const header = port.queue.front();
    port.queue.pop_front();
    const std::size_t count = std::min<std::size_t>(length, header->dwBufferLength);
    if (count > 0)
        std::memcpy(header->lpData, bytes, count);
    header->dwBytesRecorded = recorded ? *recorded : static_cast<DWORD>(count);
    finish(*header);
    return {header, count};
}

std::size_t fillBuffers(Port<HMIDIIN>& port, const unsigned char* bytes, std::size_t length)
{
    std::size_t done = 0;
    while (done < length) {
        const CallbackInProgress inProgress(port.callbacksInProgress);
        const Filled filled = fillNext(port, bytes + done, length - done, true, nullptr);
        if (!filled.header)
            break;
        port.call(MIM_LONGDATA, low32(filled.header), port.stamp());
        done += filled.count;
    }
    return done;
}

std::size_t queued(Device<HMIDIIN>& device)
{
    std::size_t least = SIZE_MAX;
    forEachClient(device, [&](Port<HMIDIIN>& port) {
        const std::lock_guard<std::mutex> guard(port.lock);
        least = std::min(least, port.queue.size());
    });
    return least == SIZE_MAX ? 0 : least;
}

// What the queued buffers of the device hold together, counted until `enough`.
std::size_t queuedBytes(Device<HMIDIIN>& device, std::size_t enough)
{
    std::size_t least = SIZE_MAX;
    forEachClient(device, [&](Port<HMIDIIN>& port) {
        const std::lock_guard<std::mutex> guard(port.lock);
        std::size_t bytes = 0;
        for (std::size_t i = 0; i < port.queue.size() && bytes < enough; ++i)
            bytes += port.queue[i]->dwBufferLength;
        least = std::min(least, bytes);
    });
    return least == SIZE_MAX ? 0 : least;
}

struct Flood
{
    FloodOptions options;
    std::atomic<bool> stop{false};
    FloodReport report; // the thread's own until it is joined
    std::thread thread;
};

std::mutex floodsLock; // guards floods
std::vector<std::pair<int, std::unique_ptr<Flood>>> floods;

void runFlood(int input, Flood& flood)
{
    const FloodOptions& options = flood.options;
    Device<HMIDIIN>& device = scriptedDevice<HMIDIIN>(input);
    for (std::uint64_t n = 0; n < options.limit && !flood.stop.load(std::memory_order_relaxed);
         ++n) {
        if (options.pauseEvery > 0 && n > 0 && n % options.pauseEvery == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(options.pauseMicroseconds));
        if (options.message) {
            options.message(n);
        } else if (options.sysExEvery > 0 && n % options.sysExEvery == 0) {
            const std::vector<unsigned char> bytes = floodSysEx(n, options.sysExLength);
            const bool fits = queuedBytes(device, bytes.size()) >= bytes.size();
            if (fits && sysEx(input, bytes.data(), bytes.size()) == bytes.size())
                ++flood.report.sysExMessages;
            else
                ++flood.report.refused;
        } else if (shortMessage(input, floodShort(n))) {
            ++flood.report.shortMessages;
        } else {
            ++flood.report.refused;
        }
    }
}

FloodReport endFlood(int input, bool early)
{
    std::unique_ptr<Flood> flood;
    {
        const std::lock_guard<std::mutex> guard(floodsLock);
        const auto found = std::find_if(floods.begin(), floods.end(),
                                        [&](const auto& entry) { return entry.first == input; });
        if (found == floods.end())
            stopWith("no flood runs into input", std::to_string(input));
        flood = std::move(found->second);
        floods.erase(found);
    }
    if (early)
        flood->stop.store(true, std::memory_order_relaxed);
    flood->thread.join();
    return flood->report;
}

// ---- Output -------------------------------------------------------------------------------------

void deliver(Device<HMIDIOUT>& device, const unsigned char* bytes, std::size_t length)
{
    const int input = device.connectedInput.load(std::memory_order_acquire);
    if (input < 0)
        return;
    std::vector<WireMessage> messages;
    {
        const std::lock_guard<std::mutex> guard(device.wireLock);
        messages = device.wire.parse(bytes, length);
    }
    for (const WireMessage& message : messages) {
        if (message.isShort)
            shortMessage(input, message.packed);
        else
            sysEx(input, message.bytes.data(), message.bytes.size());
    }
}

// Plays the oldest pending header of the port and reports it. The header stays queued while it
// plays, so a reset may take it away meanwhile and report it first.
MIDIHDR* completeNext(Port<HMIDIOUT>& port)
{
    const CallbackInProgress inProgress(port.callbacksInProgress);
    MIDIHDR* header = nullptr;
    std::vector<unsigned char> bytes;
    {
        const std::lock_guard<std::mutex> guard(port.lock);
        if (port.queue.empty())
            return nullptr;
        header = port.queue.front();
        if (port.device.connectedInput.load(std::memory_order_relaxed) >= 0)
            bytes.assign(header->lpData, header->lpData + header->dwBufferLength);
    }
    if (!bytes.empty())
        deliver(port.device, bytes.data(), bytes.size());
    {
        const std::lock_guard<std::mutex> guard(port.lock);
        if (port.queue.empty() || port.queue.front() != header)
            return nullptr;
        port.queue.pop_front();
        finish(*header);
    }
    port.call(MOM_DONE, low32(header), 0);
    return header;
}

void runDriver(Device<HMIDIOUT>& device)
{
    for (;;) {
        {
            std::unique_lock<std::mutex> guard(device.driverLock);
            device.driverWakes.wait(guard,
                                    [&] { return device.driverEnds || device.driverWork > 0; });
            if (device.driverEnds)
                return;
            --device.driverWork;
        }
        forEachClient(device, [](Port<HMIDIOUT>& port) { completeNext(port); });
    }
}

void wakeDriver(Device<HMIDIOUT>& device)
{
    const std::lock_guard<std::mutex> guard(device.driverLock);
    ++device.driverWork;
    if (!device.driver.joinable())
        device.driver = std::thread(runDriver, std::ref(device));
    device.driverWakes.notify_one();
}

void endDriver(Device<HMIDIOUT>& device)
{
    {
        const std::lock_guard<std::mutex> guard(device.driverLock);
        device.driverEnds = true;
        device.driverWakes.notify_one();
    }
    if (device.driver.joinable())
        device.driver.join();
}

void noteSent(Device<HMIDIOUT>& device, bool isShort, const void* bytes, std::size_t length,
              const MIDIHDR* header)
{
    if (!device.options.keepSent)
        return;
    const auto* const first = static_cast<const unsigned char*>(bytes);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    device.sentMessages.push_back({isShort, {first, first + length}, now(), header});
}

MMRESULT sendLong(HMIDIOUT handle, MIDIHDR* header, UINT size)
{
    Port<HMIDIOUT>* const port = findPort(handle);
    const Completion completion =
        port ? port->device.completion.load(std::memory_order_relaxed) : Completion::Manual;
    // Until it is queued the header is the caller's, so its bytes are noted before.
    const bool acceptable = port && header && size >= sizeof(MIDIHDR) && header->lpData &&
                            (flagsOf(*header) & (MHDR_INQUEUE | MHDR_PREPARED)) == MHDR_PREPARED;
    if (acceptable)
        noteSent(port->device, false, header->lpData, header->dwBufferLength, header);
    const MMRESULT result = enqueue(handle, header, size);
    if (result != MMSYSERR_NOERROR)
        return result;
    if (completion == Completion::Inline)
        completeNext(*port);
    else if (completion == Completion::Thread)
        wakeDriver(port->device);
    return MMSYSERR_NOERROR;
}

MMRESULT sendShort(HMIDIOUT handle, DWORD message)
{
    Port<HMIDIOUT>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    unsigned char bytes[4];
    for (unsigned i = 0; i < 4; ++i)
        bytes[i] = static_cast<unsigned char>(message >> (8 * i));
    noteSent(port->device, true, bytes, sizeof bytes, nullptr);
    const int input = port->device.connectedInput.load(std::memory_order_acquire);
    if (input >= 0)
        shortMessage(input, message);
    return MMSYSERR_NOERROR;
}

// ---- The whole ----------------------------------------------------------------------------------

template <typename Handle>
void removeAll()
{
    auto& direction = directionOf(Handle{});
    const std::size_t ports = direction.portCount.exchange(0);
    for (std::size_t i = 0; i < ports; ++i)
        delete direction.ports[i].exchange(nullptr);
    const unsigned devices = direction.deviceCount.exchange(0);
    for (unsigned i = 0; i < devices; ++i)
        delete direction.devices[i].exchange(nullptr);
    direction.openPorts.store(0);
}

void endDriverThreads()
{
    for (;;) {
        int input = 0;
        {
            const std::lock_guard<std::mutex> guard(floodsLock);
            if (floods.empty())
                break;
            input = floods.back().first;
        }
        endFlood(input, true);
    }
    const unsigned outputs = outputDirection.deviceCount.load();
    for (unsigned i = 0; i < outputs; ++i)
        endDriver(*outputDirection.devices[i].load());
}

template <typename Handle>
int queuedHeaders()
{
    auto& direction = directionOf(Handle{});
    std::size_t count = 0;
    const unsigned devices = direction.deviceCount.load(std::memory_order_acquire);
    for (unsigned i = 0; i < devices; ++i) {
        forEachClient(*direction.devices[i].load(std::memory_order_acquire),
                      [&](Port<Handle>& port) {
                          const std::lock_guard<std::mutex> guard(port.lock);
                          count += port.queue.size();
                      });
    }
    return static_cast<int>(count);
}

template <typename Handle>
void setKind(DriverKind kind)
{
    auto& direction = directionOf(Handle{});
    const unsigned devices = direction.deviceCount.load();
    for (unsigned i = 0; i < devices; ++i)
        direction.devices[i].load()->kind.store(kind, std::memory_order_relaxed);
}

} // namespace

void countMidi(Resources& resources)
{
    resources.inputPorts = inputDirection.openPorts.load(std::memory_order_relaxed);
    resources.outputPorts = outputDirection.openPorts.load(std::memory_order_relaxed);
    resources.inputBuffers = queuedHeaders<HMIDIIN>();
    resources.outputBuffers = queuedHeaders<HMIDIOUT>();
}

void resetMidi()
{
    endDriverThreads();
    removeAll<HMIDIIN>();
    removeAll<HMIDIOUT>();
}

} // namespace internal

using namespace internal;

// ---- The script ---------------------------------------------------------------------------------

int addInput(const std::u16string& name, const DeviceOptions& options)
{
    return addDevice<HMIDIIN>(name, options);
}

int addOutput(const std::u16string& name, const DeviceOptions& options)
{
    return addDevice<HMIDIOUT>(name, options);
}

void removeDevices()
{
    if (inputDirection.openPorts.load() > 0 || outputDirection.openPorts.load() > 0)
        stopWith("removeDevices: a port is open");
    resetMidi();
}

void setDriverKind(DriverKind kind)
{
    setKind<HMIDIIN>(kind);
    setKind<HMIDIOUT>(kind);
}

void setCompletion(int output, Completion completion)
{
    scriptedDevice<HMIDIOUT>(output).completion.store(completion, std::memory_order_relaxed);
}

bool shortMessage(int input, DWORD packed)
{
    bool taken = false;
    forEachClient(scriptedDevice<HMIDIIN>(input), [&](Port<HMIDIIN>& port) {
        const CallbackInProgress inProgress(port.callbacksInProgress);
        if (port.isStarted.load()) {
            port.call(MIM_DATA, packed, port.stamp());
            taken = true;
        }
    });
    return taken;
}

std::size_t sysEx(int input, const void* bytes, std::size_t length)
{
    std::size_t done = 0;
    forEachClient(scriptedDevice<HMIDIIN>(input), [&](Port<HMIDIIN>& port) {
        const auto* const first = static_cast<const unsigned char*>(bytes);
        done = std::max(done, fillBuffers(port, first, length));
    });
    return done;
}

MIDIHDR* returnBuffer(int input, DWORD bytesRecorded, const void* bytes, std::size_t length,
                      UINT code)
{
    Port<HMIDIIN>* const port = firstClient(scriptedDevice<HMIDIIN>(input));
    if (!port)
        return nullptr;
    const CallbackInProgress inProgress(port->callbacksInProgress);
    const auto* const first = static_cast<const unsigned char*>(bytes);
    MIDIHDR* const header = fillNext(*port, first, length, false, &bytesRecorded).header;
    if (header)
        port->call(code, low32(header), port->stamp());
    return header;
}

bool raw(int input, UINT message, DWORD parameter1, DWORD parameter2)
{
    Port<HMIDIIN>* const port = firstClient(scriptedDevice<HMIDIIN>(input));
    if (!port)
        return false;
    const CallbackInProgress inProgress(port->callbacksInProgress);
    port->call(message, parameter1, parameter2);
    return true;
}

bool isStarted(int input)
{
    bool started = false;
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { started = started || port.isStarted.load(); });
    return started;
}

std::size_t queuedBuffers(int input)
{
    return queued(scriptedDevice<HMIDIIN>(input));
}

void startFlood(int input, const FloodOptions& options)
{
    scriptedDevice<HMIDIIN>(input);
    const std::lock_guard<std::mutex> guard(floodsLock);
    for (const auto& entry : floods) {
        if (entry.first == input)
            stopWith("a flood runs already into input", std::to_string(input));
    }
    floods.emplace_back(input, std::make_unique<Flood>());
    Flood& flood = *floods.back().second;
    flood.options = options;
    flood.thread = std::thread([input, &flood] { runFlood(input, flood); });
}

FloodReport stopFlood(int input)
{
    return endFlood(input, true);
}

FloodReport waitForFlood(int input)
{
    return endFlood(input, false);
}

DWORD floodShort(std::uint64_t n)
{
    return static_cast<DWORD>(0x90 | (n & 0x7F) << 8 | (n >> 7 & 0x7F) << 16);
}

std::vector<unsigned char> floodSysEx(std::uint64_t n, std::size_t length)
{
    std::vector<unsigned char> bytes(std::max<std::size_t>(length, 8));
    bytes[0] = 0xF0;
    bytes[1] = 0x7D;
    for (unsigned i = 0; i < 4; ++i)
        bytes[2 + i] = static_cast<unsigned char>(n >> (7 * i) & 0x7F);
    for (std::size_t i = 6; i + 1 < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>((n * 31 + i * 7) & 0x7F);
    bytes.back() = 0xF7;
    return bytes;
}

std::vector<Sent> sent(int output)
{
    Device<HMIDIOUT>& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    return device.sentMessages;
}

void clearSent(int output)
{
    Device<HMIDIOUT>& device = scriptedDevice<HMIDIOUT>(output);
    const std::lock_guard<std::mutex> guard(device.sentLock);
    device.sentMessages.clear();
}

std::size_t pendingOutputs(int output)
{
    std::size_t count = 0;
    forEachClient(scriptedDevice<HMIDIOUT>(output), [&](Port<HMIDIOUT>& port) {
        const std::lock_guard<std::mutex> guard(port.lock);
        count += port.queue.size();
    });
    return count;
}

MIDIHDR* completeOutput(int output)
{
    MIDIHDR* header = nullptr;
    forEachClient(scriptedDevice<HMIDIOUT>(output), [&](Port<HMIDIOUT>& port) {
        if (!header)
            header = completeNext(port);
    });
    return header;
}

bool rawOutput(int output, UINT message, DWORD parameter1, DWORD parameter2)
{
    Port<HMIDIOUT>* const port = firstClient(scriptedDevice<HMIDIOUT>(output));
    if (!port)
        return false;
    const CallbackInProgress inProgress(port->callbacksInProgress);
    port->call(message, parameter1, parameter2);
    return true;
}

void connect(int output, int input)
{
    scriptedDevice<HMIDIIN>(input);
    scriptedDevice<HMIDIOUT>(output).connectedInput.store(input, std::memory_order_release);
}

} // namespace sim

// ---- WinMM --------------------------------------------------------------------------------------

using namespace sim::internal;

// Logs the call, then serves it unless it is to fail.
template <typename Serve>
static MMRESULT served(Entry&& entry, Serve serve)
{
    return entry.returns(entry.fails() ? MMRESULT{entry.failure()} : serve());
}

UINT midiInGetNumDevs(void)
{
    Entry entry(Function::midiInGetNumDevs);
    return entry.fails() ? entry.fail<UINT>() : entry.returns(inputDirection.deviceCount.load());
}

UINT midiOutGetNumDevs(void)
{
    Entry entry(Function::midiOutGetNumDevs);
    return entry.fails() ? entry.fail<UINT>() : entry.returns(outputDirection.deviceCount.load());
}

MMRESULT midiInGetDevCapsW(UINT_PTR device, LPMIDIINCAPSW caps, UINT size)
{
    return served(Entry(Function::midiInGetDevCapsW, nullptr, nullptr, device, size),
                  [&] { return capabilities<HMIDIIN>(device, caps, size); });
}

MMRESULT midiOutGetDevCapsW(UINT_PTR device, LPMIDIOUTCAPSW caps, UINT size)
{
    return served(Entry(Function::midiOutGetDevCapsW, nullptr, nullptr, device, size),
                  [&] { return capabilities<HMIDIOUT>(device, caps, size); });
}

MMRESULT midiInOpen(LPHMIDIIN handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,
                    DWORD flags)
{
    return served(Entry(Function::midiInOpen, nullptr, nullptr, device, flags),
                  [&] { return openPort(handle, device, callback, instance, flags); });
}

MMRESULT midiOutOpen(LPHMIDIOUT handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,
                     DWORD flags)
{
    return served(Entry(Function::midiOutOpen, nullptr, nullptr, device, flags),
                  [&] { return openPort(handle, device, callback, instance, flags); });
}

MMRESULT midiInClose(HMIDIIN handle)
{
    return served(Entry(Function::midiInClose, handle), [&] { return closePort(handle); });
}

MMRESULT midiOutClose(HMIDIOUT handle)
{
    return served(Entry(Function::midiOutClose, handle), [&] { return closePort(handle); });
}

MMRESULT midiInStart(HMIDIIN handle)
{
    return served(Entry(Function::midiInStart, handle), [&]() -> MMRESULT {
        Port<HMIDIIN>* const port = findPort(handle);
        if (!port)
            return MMSYSERR_INVALHANDLE;
        port->startTime.store(now(), std::memory_order_relaxed);
        port->isStarted.store(true);
        return MMSYSERR_NOERROR;
    });
}

MMRESULT midiInStop(HMIDIIN handle)
{
    return served(Entry(Function::midiInStop, handle), [&]() -> MMRESULT {
        Port<HMIDIIN>* const port = findPort(handle);
        if (!port)
            return MMSYSERR_INVALHANDLE;
        port->isStarted.store(false);
        return MMSYSERR_NOERROR;
    });
}

MMRESULT midiInReset(HMIDIIN handle)
{
    return served(Entry(Function::midiInReset, handle), [&] { return resetPort(handle); });
}

MMRESULT midiOutReset(HMIDIOUT handle)
{
    return served(Entry(Function::midiOutReset, handle), [&] { return resetPort(handle); });
}

MMRESULT midiInPrepareHeader(HMIDIIN handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiInPrepareHeader, handle, header, size),
                  [&] { return prepare(handle, header, size); });
}

MMRESULT midiOutPrepareHeader(HMIDIOUT handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiOutPrepareHeader, handle, header, size),
                  [&] { return prepare(handle, header, size); });
}

MMRESULT midiInUnprepareHeader(HMIDIIN handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiInUnprepareHeader, handle, header, size),
                  [&] { return unprepare(handle, header, size); });
}

MMRESULT midiOutUnprepareHeader(HMIDIOUT handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiOutUnprepareHeader, handle, header, size),
                  [&] { return unprepare(handle, header, size); });
}

MMRESULT midiInAddBuffer(HMIDIIN handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiInAddBuffer, handle, header, size),
                  [&] { return enqueue(handle, header, size); });
}

MMRESULT midiOutLongMsg(HMIDIOUT handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiOutLongMsg, handle, header, size),
                  [&] { return sendLong(handle, header, size); });
}

MMRESULT midiOutShortMsg(HMIDIOUT handle, DWORD message)
{
    return served(Entry(Function::midiOutShortMsg, handle, nullptr, message),
                  [&] { return sendShort(handle, message); });
}
