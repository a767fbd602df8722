// Driver threads that inject without end.
#include "SimMidi.h"

#include <algorithm>
#include <map>
#include <thread>

namespace sim {
namespace internal {

namespace {

// What the queued buffers of the device hold together, counted until `enough`.
std::size_t room(int input, std::size_t enough)
{
    std::size_t least = SIZE_MAX;
    forEachClient(scriptedDevice<HMIDIIN>(input),
                  [&](Port<HMIDIIN>& port) { least = std::min(least, port.room(enough)); });
    return least == SIZE_MAX ? 0 : least;
}

struct Flood
{
    FloodOptions options;
    std::atomic<bool> stop{false};
    FloodReport report; // the thread's own until it is joined
    std::thread thread;
};

std::mutex floodsLock;       // guards floods
std::map<int, Flood> floods; // by input

void runFlood(int input, Flood& flood)
{
    const FloodOptions& options = flood.options;
    for (std::uint64_t n = 0; n < options.limit && !flood.stop.load(std::memory_order_relaxed);
         ++n) {
        if (options.pauseEvery > 0 && n > 0 && n % options.pauseEvery == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (options.sysExEvery > 0 && n % options.sysExEvery == 0) {
            const std::vector<unsigned char> bytes = floodSysEx(n, options.sysExLength);
            const bool fits = room(input, bytes.size()) >= bytes.size();
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
    const std::lock_guard<std::mutex> guard(floodsLock);
    auto ended = floods.extract(input);
    if (!ended)
        stopWith("no flood runs into input", std::to_string(input));
    ended.mapped().stop.store(early, std::memory_order_relaxed);
    ended.mapped().thread.join();
    return ended.mapped().report;
}

} // namespace

void endFloods()
{
    while (!floods.empty())
        endFlood(floods.begin()->first, true);
}

} // namespace internal

using namespace internal;

void startFlood(int input, const FloodOptions& options)
{
    scriptedDevice<HMIDIIN>(input);
    const std::lock_guard<std::mutex> guard(floodsLock);
    const auto [place, isNew] = floods.try_emplace(input);
    if (!isNew)
        stopWith("a flood runs already into input", std::to_string(input));
    Flood& flood = place->second;
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
