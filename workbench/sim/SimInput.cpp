// Input drivers: what the script lets arrive.
#include "SimMidi.h"

#include <cstring>
#include <memory>

namespace sim {
namespace internal {

namespace {

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

} // namespace

void endFloods()
{
    for (;;) {
        int input = 0;
        {
            const std::lock_guard<std::mutex> guard(floodsLock);
            if (floods.empty())
                return;
            input = floods.back().first;
        }
        endFlood(input, true);
    }
}

} // namespace internal

using namespace internal;

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

} // namespace sim
