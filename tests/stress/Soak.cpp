// lumora-soak MINUTES [SEED]: random traffic through the DLL over one lead of the virtual cable,
// with stalls of the observer and with both ports closed and opened again at random moments. On
// Windows 11's kind of driver 1 in 50 openings ends with the device pulled out, and the driver is
// unloaded at the end, so that it touches what it kept.
//
// Every message is a function of the seed and of its number, so the receiver knows each byte that
// it should get. What does not come must have been lost where the rules allow it: on a closed port,
// or as a short message while the record queue was full. All else is an error.

#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"
#include "workbench/cable/Cable.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>
#include <windows.h>

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

// The record queue holds 65,536 records and keeps 770 of them free of short messages: as long as
// fewer messages than that are under way, none may be lost to it.
constexpr std::uint64_t kShortRecords = 65'536 - 770;

// The rest of the time no more than this are under way: even if all are the longest SysEx, the 768
// input buffers suffice.
constexpr std::uint64_t kUsualBacklog = 100;

// Of every 85,000 messages the last 80,000 are short and sent while the observer stalls.
constexpr std::uint64_t kBlock = 85'000;
constexpr std::uint64_t kBurst = 80'000;

void sleepFor(unsigned milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// ---- The messages -------------------------------------------------------------------------------

bool isInBurst(std::uint64_t number)
{
    return number % kBlock >= kBlock - kBurst;
}

unsigned char low7(std::uint64_t value)
{
    return static_cast<unsigned char>(value & 0x7F);
}

unsigned char checksum(const Bytes& sysEx)
{
    unsigned sum = 0;
    for (std::size_t i = 1; i + 2 < sysEx.size(); ++i)
        sum += sysEx[i];
    return low7(sum);
}

/// A note-on with 18 bits of its number, or a SysEx message of 3 to 20,000 bytes, which carries 28
/// bits of it if it has 8 bytes, and ends with a checksum and F7.
Bytes makeMessage(std::uint64_t seed, std::uint64_t number)
{
    std::mt19937 random(static_cast<unsigned>(seed + number * 2'654'435'761u));
    if (isInBurst(number) || random() % 4 != 0)
        return {static_cast<unsigned char>(0x90 | (number >> 14 & 0xF)), low7(number),
                low7(number >> 7)};
    static const unsigned longest[] = {7, 100, 100, 1000, 1000, 4096, 4200, 20'000};
    Bytes bytes(3 + random() % (longest[random() % 8] - 2));
    for (unsigned char& byte : bytes)
        byte = low7(random());
    bytes.front() = 0xF0;
    if (bytes.size() >= 8) {
        for (unsigned i = 0; i < 4; ++i)
            bytes[1 + i] = low7(number >> (7 * i));
    }
    bytes[bytes.size() - 2] = checksum(bytes);
    bytes.back() = 0xF7;
    return bytes;
}

bool isWholeSysEx(const Bytes& bytes)
{
    return bytes.size() >= 3 && bytes.back() == 0xF7 &&
           std::all_of(bytes.begin() + 1, bytes.end() - 1, [](int byte) { return byte < 0x80; }) &&
           bytes[bytes.size() - 2] == checksum(bytes);
}

bool isNumbered(const Bytes& bytes)
{
    return bytes[0] != 0xF0 || bytes.size() >= 8;
}

/// The first number from `next` on that the message can have.
std::uint64_t numberOf(const Bytes& bytes, std::uint64_t next)
{
    std::uint64_t bits;
    std::uint64_t mask;
    if (bytes[0] == 0xF0) {
        bits = bytes[1] | bytes[2] << 7 | bytes[3] << 14 | std::uint64_t(bytes[4]) << 21;
        mask = (1 << 28) - 1;
    } else {
        bits = bytes[1] | bytes[2] << 7 | (bytes[0] & 0xFu) << 14;
        mask = (1 << 18) - 1;
    }
    return next + ((bits - next) & mask);
}

// ---- What the threads know of the traffic -------------------------------------------------------

struct Traffic
{
    std::uint64_t seed = 0;
    std::atomic<std::uint64_t> sent{0}; ///< messages begun: the number of the next one
    std::atomic<std::uint64_t> next{0}; ///< the first number that is neither delivered nor lost
    std::atomic<bool> inBurst{false};

    /// Held to reopen a port, and for a burst, which needs both of them open.
    std::mutex ports;

    /// Messages below these numbers may be lost: on a closed port, to a full queue.
    std::atomic<std::uint64_t> lossEndClosed{0};
    std::atomic<std::uint64_t> lossEndFull{0};

    /// Each may leave a piece of a SysEx message, which the next one then begins with.
    std::atomic<std::uint64_t> reopenings{0};

    /// Of them, those of a device that was pulled out.
    std::atomic<std::uint64_t> lostInputs{0};
    std::atomic<std::uint64_t> lostOutputs{0};

    std::atomic<std::uint64_t> messages{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> lostClosed{0};
    std::atomic<std::uint64_t> lostFull{0};
    std::atomic<std::uint64_t> cut{0};
    std::atomic<std::uint64_t> errors{0};

    std::uint64_t underWay() const { return sent - std::min<std::uint64_t>(next, sent); }

    void error(const char* what, std::uint64_t number)
    {
        if (++errors <= 20)
            std::printf("error at message %llu: %s\n", static_cast<unsigned long long>(number),
                        what);
        std::fflush(stdout);
    }

    void print(Clock::duration elapsed) const
    {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
        const auto value = [](const auto& count) { return static_cast<unsigned long long>(count); };
        std::printf(
            "%2d:%02d  %llu messages, %llu bytes, %llu reopenings, %llu of them of an input "
            "and %llu of an output that was pulled out, dropped as the rules allow: %llu on "
            "a closed or lost port, %llu from a full queue, %llu SysEx cut; %llu errors\n",
            static_cast<int>(seconds / 60), static_cast<int>(seconds % 60), value(messages),
            value(bytes), value(reopenings), value(lostInputs), value(lostOutputs),
            value(lostClosed), value(lostFull), value(cut), value(errors));
        std::fflush(stdout);
    }
};

// ---- The receiver, on the pusher thread ---------------------------------------------------------

class Receiver : public TMIDIReaderRefConInterface
{
public:
    explicit Receiver(Traffic& traffic) : traffic(traffic) {}
    virtual ~Receiver() = default;

    int read(int length, const void* data, bool, bool) override
    {
        const auto* const first = static_cast<const unsigned char*>(data);
        Bytes bytes(first, first + length);
        ++traffic.messages;
        traffic.bytes += bytes.size();
        if (bytes[0] == 0xF0)
            checkSysEx(bytes);
        else
            checkShort(bytes);
        while (traffic.inBurst)
            sleepFor(1);
        if (const unsigned milliseconds = stall.exchange(0))
            sleepFor(milliseconds);
        return 0;
    }

    std::atomic<unsigned> stall{0}; ///< milliseconds that the next call takes longer

private:
    void checkShort(Bytes& bytes)
    {
        if (bytes.size() != 4 || bytes[3] != 0)
            traffic.error("a short message is not of four bytes", traffic.next);
        bytes.resize(3);
        checkPlace(bytes);
    }

    void checkSysEx(const Bytes& bytes)
    {
        if (isWholeSysEx(bytes)) {
            checkPlace(bytes);
            return;
        }
        if (++traffic.cut > traffic.reopenings)
            traffic.error("a SysEx message is damaged", traffic.next);
        // Behind the piece that was left there may be a whole message.
        const auto start = std::find(bytes.rbegin(), bytes.rend(), 0xF0).base() - 1;
        const Bytes tail(start, bytes.end());
        if (isWholeSysEx(tail))
            checkPlace(tail);
    }

    void checkPlace(const Bytes& bytes)
    {
        const std::uint64_t next = traffic.next;
        if (bytes == makeMessage(traffic.seed, next)) {
            traffic.next = next + 1;
        } else if (isNumbered(bytes)) {
            const std::uint64_t number = numberOf(bytes, next);
            if (number >= traffic.sent || bytes != makeMessage(traffic.seed, number))
                traffic.error("this was not sent", number);
            skip(next, number);
            traffic.next = number + 1;
        } else if (next < std::max<std::uint64_t>(traffic.lossEndClosed, traffic.lossEndFull)) {
            ++unplaced; // after a loss, and too short to say which one it is
        } else {
            traffic.error("a SysEx message is out of place", next);
        }
    }

    /// Messages `from` to `to` - 1 have not come, but for those that could not be placed.
    void skip(std::uint64_t from, std::uint64_t to)
    {
        unplaced = std::min(unplaced, to - from);
        const std::uint64_t lost = to - from - unplaced;
        to -= unplaced;
        unplaced = 0;
        if (to <= traffic.lossEndFull)
            traffic.lostFull += lost;
        else if (to <= traffic.lossEndClosed)
            traffic.lostClosed += lost;
        else
            traffic.error("those in front of it are lost", to);
    }

    Traffic& traffic;
    std::uint64_t unplaced = 0;
};

// ---- The sender, on a thread of its own ---------------------------------------------------------

void waitForReceiver(const Traffic& traffic)
{
    // On a closed port messages stay under way until one arrives again.
    for (int round = 0; round < 300 && traffic.underWay() > kUsualBacklog; ++round)
        sleepFor(1);
}

void sendUntil(const std::atomic<bool>& stop, TMIDITransport& transport, Traffic& traffic)
{
    std::unique_lock<std::mutex> ports(traffic.ports, std::defer_lock);
    bool isLast = false;
    for (std::uint64_t number = 0; !isLast; ++number) {
        const Bytes bytes = makeMessage(traffic.seed, number);
        // With no reopening any more, and one that tells what became of those before it.
        isLast = stop && isNumbered(bytes) && !isInBurst(number);
        if (isInBurst(number) && !ports)
            ports.lock();
        if (!isInBurst(number) && ports)
            ports.unlock();
        traffic.inBurst = isInBurst(number);
        if (!traffic.inBurst)
            waitForReceiver(traffic);
        else if (traffic.underWay() >= kShortRecords)
            traffic.lossEndFull = number + 1;
        traffic.sent = number + 1;
        if (!transport.outputData(static_cast<int>(bytes.size()), bytes.data()) &&
            number >= traffic.lossEndClosed)
            traffic.error("the output refused it", number);
    }
    traffic.inBurst = false;
}

// ---- The host -----------------------------------------------------------------------------------

constexpr std::uint64_t kAnyNumber = UINT64_MAX;

void control(int command, bool input)
{
    if (!controlCable(command, input, 0)) {
        std::fprintf(stderr, "The cable has no device to control.\n");
        std::exit(1);
    }
}

/// Ends an opening and begins the next one; in between the port is closed for `closedFor`
/// milliseconds. With `isLost` the device is pulled out as long before it is closed.
void reopen(TMIDITransport& transport, Traffic& traffic, bool input, unsigned closedFor,
            bool isLost)
{
    const std::lock_guard<std::mutex> guard(traffic.ports);
    ++traffic.reopenings;
    traffic.lossEndClosed = kAnyNumber;
    if (isLost) {
        ++(input ? traffic.lostInputs : traffic.lostOutputs);
        control(LUMORA_CABLE_UNPLUG, input);
        sleepFor(closedFor);
    }
    if ((input ? transport.closeInput() : transport.closeOutput()) != 0)
        traffic.error("a port did not close", traffic.sent);
    sleepFor(closedFor);
    if (isLost)
        control(LUMORA_CABLE_PLUG_IN, input);
    if (!(input ? transport.openInput(1) : transport.openOutput(1)))
        traffic.error("a port did not open", traffic.sent);
    traffic.lossEndClosed = traffic.sent.load();
}

/// Stalls and reopenings at random, until the time is over.
void disturb(TMIDITransport& transport, Receiver& receiver, Traffic& traffic,
             Clock::duration duration, bool canBeLost)
{
    std::mt19937 random(static_cast<unsigned>(traffic.seed));
    const Clock::time_point start = Clock::now();
    Clock::time_point report = start;
    while (Clock::now() < start + duration) {
        sleepFor(random() % 400);
        const unsigned choice = random() % 20;
        if (choice == 0) {
            receiver.stall = 2000;
        } else if (choice < 12) {
            receiver.stall = random() % 200;
        } else {
            const unsigned closedFor = random() % 50;
            reopen(transport, traffic, choice < 17, closedFor, canBeLost && random() % 50 == 0);
        }
        if (Clock::now() - report >= std::chrono::seconds(10)) {
            report = Clock::now();
            traffic.print(report - start);
        }
    }
}

/// Ends the program if the sender, the receiver or the host has not moved for a minute: none of
/// them ever has to wait that long.
void watch(const Traffic& traffic, const std::atomic<bool>& isOver)
{
    const std::atomic<std::uint64_t>* const counts[] = {&traffic.sent, &traffic.messages,
                                                        &traffic.reopenings};
    const char* const names[] = {"sender", "receiver", "host"};
    std::uint64_t last[3] = {};
    int seconds[3] = {};
    while (!isOver) {
        sleepFor(1000);
        for (int i = 0; i < 3; ++i) {
            const std::uint64_t count = *counts[i];
            seconds[i] = count == last[i] ? seconds[i] + 1 : 0;
            last[i] = count;
            if (seconds[i] < 60 || isOver)
                continue;
            std::printf("error at message %llu: the %s hangs\n",
                        static_cast<unsigned long long>(traffic.sent), names[i]);
            std::fflush(stdout);
            std::_Exit(1);
        }
    }
}

int soak(double minutes, std::uint64_t seed, bool canBeLost)
{
    Traffic traffic;
    traffic.seed = seed;
    Receiver receiver(traffic);
    TMIDITransport& transport = MIDITransportInstance(nullptr);
    transport.registerMIDIobserver(&receiver);
    if (!transport.openInput(1) || !transport.openOutput(1)) {
        std::fprintf(stderr, "lumora-soak: the cable's ports do not open\n");
        return 1;
    }
    std::printf("Seed %llu\n", static_cast<unsigned long long>(seed));
    const Clock::time_point start = Clock::now();
    std::atomic<bool> stop{false};
    std::atomic<bool> isOver{false};
    std::thread watchdog([&] { watch(traffic, isOver); });
    std::thread sender([&] { sendUntil(stop, transport, traffic); });
    disturb(transport, receiver, traffic,
            std::chrono::milliseconds(static_cast<long long>(minutes * 60'000)), canBeLost);
    stop = true;
    sender.join();
    for (int round = 0; round < 1500 && traffic.next < traffic.sent; ++round)
        sleepFor(10);
    if (traffic.next != traffic.sent)
        traffic.error("it and those behind it never came", traffic.next);
    transport.Release();
    if (canBeLost) {
        control(LUMORA_CABLE_UNLOAD, true);
        control(LUMORA_CABLE_UNLOAD, false);
    }
    isOver = true;
    watchdog.join();
    traffic.print(Clock::now() - start);
    return traffic.errors == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const double minutes = argc > 1 ? std::atof(argv[1]) : 0;
    if (minutes <= 0 || argc > 3) {
        std::fprintf(stderr, "Usage: lumora-soak MINUTES [SEED]\n");
        return 2;
    }
    // Both would be woken by the one named event that says that there is input.
    CreateMutexW(nullptr, FALSE, L"lumora-soak");
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        std::fprintf(stderr, "lumora-soak: it is running already\n");
        return 1;
    }
    const std::uint64_t seed =
        argc > 2 ? std::strtoull(argv[2], nullptr, 10) : std::random_device()();
    // Read by the driver when the process first calls WinMM. Every other seed has Windows 11's.
    if (!std::getenv("LUMORA_CABLE")) {
        const bool isWindows11 = seed % 2 == 0;
        std::printf("Driver: %s\n", isWindows11 ? "Windows 11's" : "one that waits in reset");
        _putenv_s("LUMORA_CABLE",
                  isWindows11 ? "in \"Soak\" driver=windows11\nout \"Soak\" driver=windows11"
                              : "in \"Soak\"\nout \"Soak\"");
    }
    const bool canBeLost = std::strstr(std::getenv("LUMORA_CABLE"), "driver=windows11") != nullptr;
    return soak(minutes, seed, canBeLost);
}
