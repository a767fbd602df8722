// One measurement of one library in one process; prints the result as a line of JSON:
//
//   receive COUNT WORK STALL   COUNT short messages come from the cable's generator; the observer
//                              works WORK microseconds on each, and on the first one it sleeps
//                              STALL milliseconds instead
//   roundtrip COUNT            a short message out of the library, over the cable and back to its
//                              observer, one at a time
//   burst MOST STALL           the largest SysEx message, up to MOST bytes, that arrives whole when
//                              it is sent at once to an observer that stalls meanwhile
//   whole BYTES STALL          whether one of BYTES does
//   sysexout BYTES             how long the library takes to send a SysEx message
//   close COUNT                how long it takes to close an input under a flood, with objects that
//                              are made anew each time
//   lifecycle COUNT            time and memory to make the library's objects, open and close an
//   input signal COUNT               the cost of SetEvent, with nobody waiting for the event
//
// Usage: peer-NAME SETTING MEASUREMENT [NUMBER...]. Bad usage and failures end with status 1 and a
// sentence on the standard error stream.

#include "Clock.h"
#include "Library.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <mmsystem.h>

#include <psapi.h>

namespace {

using Bytes = std::vector<unsigned char>;
using Numbers = std::vector<double>;

class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

void expect(bool fulfilled, const char* sentence)
{
    if (!fulfilled)
        throw Failure(sentence);
}

std::unique_ptr<Library> make(const std::string& setting, Observer& observer)
{
    std::unique_ptr<Library> library = makeLibrary(setting, observer);
    expect(library != nullptr, "The library has no such setting.");
    return library;
}

double median(Numbers values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

void printList(const char* name, const Numbers& values)
{
    std::printf("\"%s\": [", name);
    for (std::size_t i = 0; i < values.size(); ++i)
        std::printf(i == 0 ? "%.1f" : ", %.1f", values[i]);
    std::printf("]");
}

// ---- Receiving short messages ------------------------------------------------------------------

// The number that the cable's flood gives its messages.
unsigned numberOf(const unsigned char* note)
{
    return (note[0] & 0x0Fu) << 14 | unsigned(note[1]) << 7 | note[2];
}

class Counter final : public Observer
{
public:
    Counter(double workTime, DWORD stall) : workTime(workTime), stall(stall) {}

    void receive(const unsigned char* bytes, std::size_t length) override
    {
        if (length < 3)
            return;
        const long long number = numberOf(bytes);
        inOrder = inOrder && number > last;
        last = number;
        if (received == 0 && stall > 0)
            Sleep(stall);
        else
            work(workTime);
        ++received;
    }

    const double workTime;
    const DWORD stall;
    std::atomic<unsigned> received{0};
    std::atomic<bool> inOrder{true};

private:
    long long last = -1;
};

void receive(const std::string& setting, unsigned count, double workTime, DWORD stall)
{
    const double silence = 500e3 + stall * 1e3;
    Counter counter(workTime, stall);
    const std::unique_ptr<Library> library = make(setting, counter);
    const double start = now();
    expect(library->openInput(), "The input cannot be opened.");
    double last = start;
    for (unsigned seen = 0; seen < count && now() - last < silence; Sleep(10)) {
        if (seen != counter.received)
            last = now();
        seen = counter.received;
    }
    const double elapsed = now() - start;
    library->closeInput();
    std::printf("{\"received\": %u, \"inOrder\": %s, \"milliseconds\": %.1f}\n",
                counter.received.load(), counter.inOrder ? "true" : "false", elapsed / 1000);
}

// ---- There and back ----------------------------------------------------------------------------

class Arrival final : public Observer
{
public:
    void receive(const unsigned char* bytes, std::size_t length) override
    {
        const double time = now();
        if (length < 3)
            return;
        at = time;
        arrived = static_cast<int>(numberOf(bytes));
        // Under Wine this wakes the sender without the server, which would disturb what is
        // measured.
        WakeByAddressSingle(&arrived);
    }

    // False if it takes longer than a second.
    bool await(int number)
    {
        for (int seen = arrived; seen != number; seen = arrived) {
            if (!WaitOnAddress(&arrived, &seen, sizeof seen, 1000))
                return false;
        }
        return true;
    }

    std::atomic<double> at{0};

private:
    std::atomic<int> arrived{-1};
};

void roundTrip(const std::string& setting, unsigned count)
{
    constexpr unsigned warmUp = 50;
    Arrival arrival;
    const std::unique_ptr<Library> library = make(setting, arrival);
    expect(library->openInput() && library->openOutput(), "The ports cannot be opened.");
    Numbers times;
    for (unsigned i = 0; i < warmUp + count; ++i) {
        const unsigned char note[] = {0x90, static_cast<unsigned char>(i / 128 % 128),
                                      static_cast<unsigned char>(i % 128)};
        const double start = now();
        expect(library->send(note, sizeof note), "A message cannot be sent.");
        expect(arrival.await(static_cast<int>(numberOf(note))), "A message has not come back.");
        if (i >= warmUp)
            times.push_back(arrival.at - start);
        Sleep(1); // every thread comes to rest, as between notes
    }
    library->closeInput();
    std::printf("{");
    printList("microseconds", times);
    std::printf("}\n");
}

// ---- SysEx in ----------------------------------------------------------------------------------

constexpr DWORD kStallNote = 0x000190;
constexpr DWORD kEndNote = 0x000290;

unsigned char dataByte(std::size_t position)
{
    return (position + position / 128) & 0x7F;
}

Bytes sysEx(std::size_t length)
{
    Bytes message(length);
    for (std::size_t i = 0; i < length; ++i)
        message[i] = dataByte(i);
    message.front() = 0xF0;
    message.back() = 0xF7;
    return message;
}

// Stalls at the first note until it is released, then compares what arrives until the second.
class Stalled final : public Observer
{
public:
    explicit Stalled(const Bytes& expected) : expected(expected) {}
    Stalled(const Stalled&) = delete;
    ~Stalled()
    {
        CloseHandle(stalls);
        CloseHandle(released);
        CloseHandle(over);
    }

    void receive(const unsigned char* bytes, std::size_t length) override
    {
        if (length >= 3 && bytes[0] == 0x90) {
            if (bytes[1] == 1) {
                SetEvent(stalls);
                WaitForSingleObject(released, INFINITE);
            } else {
                SetEvent(over);
            }
            return;
        }
        ++pieces;
        same = same && length <= expected.size() - position &&
               std::equal(bytes, bytes + length, expected.begin() + static_cast<int>(position));
        position += same ? length : 0;
    }

    bool whole() const { return same && position == expected.size(); }

    const HANDLE stalls = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE released = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE over = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    unsigned pieces = 0;

private:
    const Bytes& expected;
    std::size_t position = 0;
    bool same = true;
};

// Sends without a library, so that every one of them gets the same.
class Sender
{
public:
    Sender()
    {
        expect(midiOutOpen(&output, 0, reinterpret_cast<DWORD_PTR>(done), 0, CALLBACK_EVENT) ==
                   MMSYSERR_NOERROR,
               "The output cannot be opened.");
    }
    Sender(const Sender&) = delete;
    ~Sender()
    {
        midiOutReset(output);
        midiOutClose(output);
        CloseHandle(done);
    }

    void send(DWORD note) { midiOutShortMsg(output, note); }

    // Returns when the input has taken in what it can.
    void send(Bytes& message)
    {
        MIDIHDR header = {};
        header.lpData = reinterpret_cast<LPSTR>(message.data());
        header.dwBufferLength = static_cast<DWORD>(message.size());
        midiOutPrepareHeader(output, &header, sizeof header);
        expect(midiOutLongMsg(output, &header, sizeof header) == MMSYSERR_NOERROR,
               "SysEx cannot be sent.");
        while (midiOutUnprepareHeader(output, &header, sizeof header) == MIDIERR_STILLPLAYING)
            WaitForSingleObject(done, 1);
    }

private:
    const HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HMIDIOUT output = nullptr;
};

struct Attempt
{
    bool whole;
    unsigned pieces;
};

Attempt tryBurst(const std::string& setting, std::size_t length, double stall)
{
    Bytes message = sysEx(length);
    Stalled observer(message);
    const std::unique_ptr<Library> library = make(setting, observer);
    expect(library->openInput(), "The input cannot be opened.");
    {
        Sender sender;
        sender.send(kStallNote);
        expect(WaitForSingleObject(observer.stalls, 2000) == WAIT_OBJECT_0,
               "The note before the burst has not arrived.");
        const double start = now();
        sender.send(message);
        while (now() - start < stall * 1000)
            Sleep(1);
        SetEvent(observer.released);
        // Again and again: a full queue drops it, too.
        for (int i = 0; i < 300; ++i) {
            sender.send(kEndNote);
            if (WaitForSingleObject(observer.over, 10) == WAIT_OBJECT_0)
                break;
        }
        expect(WaitForSingleObject(observer.over, 0) == WAIT_OBJECT_0,
               "The note behind the burst has not arrived.");
    }
    library->closeInput();
    return {observer.whole(), observer.pieces};
}

void whole(const std::string& setting, unsigned length, double stall)
{
    const Attempt attempt = tryBurst(setting, length, stall);
    std::printf("{\"bytes\": %u, \"whole\": %s, \"pieces\": %u}\n", length,
                attempt.whole ? "true" : "false", attempt.pieces);
}

// Between 2 bytes, which count as fitting, and `most`.
unsigned largestBurst(const std::string& setting, unsigned most, double stall)
{
    unsigned fits = 2, tooMuch = most + 1;
    while (tooMuch - fits > 1) {
        const unsigned length = fits + (tooMuch - fits) / 2;
        (tryBurst(setting, length, stall).whole ? fits : tooMuch) = length;
    }
    return fits;
}

void burst(const std::string& setting, unsigned most, double stall)
{
    // Looked for without a stall beyond the sending, which is quick and mostly finds the same.
    // Where the observer gains from what it reads meanwhile, looked for again with a longer one.
    unsigned length = largestBurst(setting, most, 0);
    Attempt largest = tryBurst(setting, length, stall);
    if (!largest.whole) {
        length = largestBurst(setting, length, stall / 5);
        largest = tryBurst(setting, length, stall);
    }
    const bool oneMore = tryBurst(setting, length + 1, stall).whole;
    std::printf("{\"bytes\": %u, \"whole\": %s, \"pieces\": %u, \"oneMoreIsWhole\": %s}\n", length,
                largest.whole ? "true" : "false", largest.pieces, oneMore ? "true" : "false");
}

// ---- SysEx out ---------------------------------------------------------------------------------

class Ignoring final : public Observer
{
    void receive(const unsigned char*, std::size_t) override {}
};

void sysExOut(const std::string& setting, unsigned length)
{
    const Bytes message = sysEx(length);
    Ignoring observer;
    const std::unique_ptr<Library> library = make(setting, observer);
    expect(library->openOutput(), "The output cannot be opened.");
    const double start = now();
    const bool sent = library->send(message.data(), message.size());
    const double elapsed = now() - start;
    Sleep(50); // closing would cut off the last chunk
    std::printf("{\"milliseconds\": %.3f, \"sent\": %s}\n", elapsed / 1000,
                sent ? "true" : "false");
}

// ---- Beginning and end -------------------------------------------------------------------------

class Waiting final : public Observer
{
public:
    void receive(const unsigned char*, std::size_t) override { ++received; }

    std::atomic<unsigned> received{0};
};

void closeUnderFlood(const std::string& setting, unsigned count)
{
    constexpr unsigned flowing = 20;
    Numbers times;
    for (unsigned i = 0; i < count; ++i) {
        Waiting observer;
        const std::unique_ptr<Library> library = make(setting, observer);
        expect(library->openInput(), "The input cannot be opened.");
        while (observer.received < flowing)
            Sleep(1);
        const double start = now();
        library->closeInput();
        times.push_back(now() - start);
    }
    std::printf("{\"cycles\": %u, ", count);
    printList("microseconds", times);
    std::printf("}\n");
}

// Private memory of this process with pages behind it, touched or not.
double committedBytes()
{
    double total = 0;
    MEMORY_BASIC_INFORMATION region;
    for (const char* address = nullptr; VirtualQuery(address, &region, sizeof region) != 0;
         address = static_cast<const char*>(region.BaseAddress) + region.RegionSize) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            total += static_cast<double>(region.RegionSize);
    }
    return total;
}

double residentBytes()
{
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof counters;
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return static_cast<double>(counters.WorkingSetSize);
}

void lifecycle(const std::string& setting, unsigned count)
{
    // The first time in a process also loads and initialises what the library rests on, the driver
    // alone excepted, which the first call of WinMM loads for all alike.
    midiInGetNumDevs();
    Ignoring observer;
    Numbers made, opened, closed, ended;
    double committed[3] = {}, resident[3] = {};
    for (unsigned i = 0; i <= count; ++i) {
        if (i == 0) {
            committed[0] = committedBytes();
            resident[0] = residentBytes();
        }
        double start = now();
        std::unique_ptr<Library> library = make(setting, observer);
        made.push_back(now() - start);
        if (i == 0) {
            committed[1] = committedBytes();
            resident[1] = residentBytes();
        }
        start = now();
        expect(library->openInput(), "The input cannot be opened.");
        opened.push_back(now() - start);
        if (i == 0) {
            committed[2] = committedBytes();
            resident[2] = residentBytes();
        }
        start = now();
        library->closeInput();
        closed.push_back(now() - start);
        start = now();
        library.reset();
        ended.push_back(now() - start);
    }
    std::printf("{\"committedByObjects\": %.0f, \"committedWhenOpen\": %.0f, "
                "\"residentByObjects\": %.0f, \"residentWhenOpen\": %.0f",
                committed[1] - committed[0], committed[2] - committed[0], resident[1] - resident[0],
                resident[2] - resident[0]);
    const auto print = [](const char* name, const Numbers& times) {
        std::printf(", \"%sFirst\": %.1f, \"%s\": %.1f", name, times.front(), name,
                    median({times.begin() + 1, times.end()}));
    };
    print("make", made);
    print("open", opened);
    print("close", closed);
    print("end", ended);
    std::printf("}\n");
}

// ---- What a call of the system costs -----------------------------------------------------------

void signal(unsigned count)
{
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    Numbers times;
    for (unsigned i = 0; i < count; ++i) {
        const double start = now();
        SetEvent(event);
        times.push_back(now() - start);
        Sleep(1);
    }
    CloseHandle(event);
    std::printf("{");
    printList("microseconds", times);
    std::printf("}\n");
}

void run(int argc, char** argv)
{
    expect(argc > 3, "Usage: peer-NAME SETTING MEASUREMENT NUMBER...");
    const std::string setting = argv[1];
    const std::string measurement = argv[2];
    const auto number = [=](int i) {
        return i < argc ? static_cast<unsigned>(std::strtoul(argv[i], nullptr, 10)) : 0;
    };
    if (measurement == "receive")
        receive(setting, number(3), number(4), number(5));
    else if (measurement == "roundtrip")
        roundTrip(setting, number(3));
    else if (measurement == "burst")
        burst(setting, number(3), number(4));
    else if (measurement == "whole")
        whole(setting, number(3), number(4));
    else if (measurement == "sysexout")
        sysExOut(setting, number(3));
    else if (measurement == "close")
        closeUnderFlood(setting, number(3));
    else if (measurement == "lifecycle")
        lifecycle(setting, number(3));
    else if (measurement == "signal")
        signal(number(3));
    else
        throw Failure("There is no such measurement.");
}

} // namespace

int main(int argc, char** argv)
{
    try {
        run(argc, argv);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
