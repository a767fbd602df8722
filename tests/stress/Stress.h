#ifndef LUMORA_TESTS_STRESS_STRESS_H
#define LUMORA_TESTS_STRESS_STRESS_H

#include "tests/stress/Watchdog.h"
#include "tests/unit/TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <malloc.h>

#if defined(LUMORA_ADDRESS_SANITIZER) || defined(LUMORA_THREAD_SANITIZER)
// The sanitizers' own; gcc comes without the header that declares it.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

/// ThreadSanitizer makes everything several times slower; tests then do fewer rounds.
#if defined(LUMORA_THREAD_SANITIZER)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

/// Every kind of driver, for tests that have it as their parameter.
inline const auto kDriverKinds =
    testing::Values(sim::DriverKind::WaitsInReset, sim::DriverKind::WaitsInClose,
                    sim::DriverKind::WaitsInNeither, sim::DriverKind::Windows11);

inline std::string driverName(const testing::TestParamInfo<sim::DriverKind>& driver)
{
    switch (driver.param) {
    case sim::DriverKind::WaitsInReset:
        return "WaitsInReset";
    case sim::DriverKind::WaitsInClose:
        return "WaitsInClose";
    case sim::DriverKind::Windows11:
        return "Windows11";
    default:
        return "WaitsInNeither";
    }
}

/// The threads of this process.
inline int threadCount()
{
    namespace fs = std::filesystem;
    return static_cast<int>(
        std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

/// Waits until the process has `count` threads: one that was waited for may still be on its way out
/// of the system. Returns the number it has in the end.
inline int settledThreadCount(int count)
{
    for (int round = 0; round < 500 && threadCount() != count; ++round)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return threadCount();
}

/// Bytes of the C++ heap in use.
inline std::size_t allocatedBytes()
{
#if defined(LUMORA_ADDRESS_SANITIZER) || defined(LUMORA_THREAD_SANITIZER)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

/// Checks what a flood delivers, message by message: short messages look like one, SysEx messages
/// are byte-exact and in order. A close may cut a SysEx message after any of its buffers; what had
/// arrived is then the beginning of the next message that is delivered.
class FloodChecker : public TMIDIReaderRefConInterface
{
public:
    explicit FloodChecker(std::size_t sysExLength) : sysExLength(sysExLength) {}
    virtual ~FloodChecker() = default;

    int read(int length, const void* data, bool, bool) override
    {
        const auto* const bytes = static_cast<const unsigned char*>(data);
        if (bytes[0] == 0xF0)
            checkSysEx(bytes, bytes + length);
        else
            checkShort(bytes, length);
        if (onRead)
            onRead();
        return 0;
    }

    std::function<void()> onRead; ///< set before the input is opened

    std::atomic<std::uint64_t> shortMessages{0};
    std::atomic<std::uint64_t> sysExMessages{0};
    std::atomic<std::uint64_t> cut{0};    ///< beginnings of SysEx messages that a close cut off
    std::atomic<std::uint64_t> errors{0}; ///< anything else than the flood sent

    std::uint64_t messages() const { return shortMessages + sysExMessages; }

    /// For the next flood, which counts from 0 again. Not while input arrives.
    void restart() { next = 0; }

private:
    void checkShort(const unsigned char* bytes, int length)
    {
        ++shortMessages;
        if (length != 4 || bytes[0] >> 4 != 9 || bytes[1] > 127 || bytes[2] > 127 || bytes[3] != 0)
            ++errors;
    }

    void checkSysEx(const unsigned char* bytes, const unsigned char* end)
    {
        ++sysExMessages;
        for (;;) {
            const std::size_t left = static_cast<std::size_t>(end - bytes);
            std::uint64_t n = 0;
            for (int i = 5; left >= 8 && i >= 2; --i)
                n = n << 7 | bytes[i];
            if (left < sysExLength || n < next) {
                ++errors;
                return;
            }
            next = n + 1;
            const std::vector<unsigned char> sent = sim::floodSysEx(n, sysExLength);
            if (left == sysExLength && std::memcmp(sent.data(), bytes, left) == 0)
                return;
            const auto differ = std::mismatch(sent.begin(), sent.end(), bytes).first;
            // Cut off at the end of a buffer, and the next message behind it.
            if (differ - sent.begin() < kBuffer || left < kBuffer + sysExLength) {
                ++errors;
                return;
            }
            ++cut;
            bytes += kBuffer;
        }
    }

    static constexpr std::ptrdiff_t kBuffer = MIDIHeaderBlock::kBufferSize;

    const std::size_t sysExLength; // of at most two buffers, so that only one place can be cut
    std::uint64_t next = 0;        // number that the next SysEx message has at least
};

/// Opens a gate for threads that wait at it.
class Gate
{
public:
    void open()
    {
        {
            const std::lock_guard<std::mutex> guard(mutex);
            isOpen = true;
        }
        opened.notify_all();
    }

    void wait()
    {
        std::unique_lock<std::mutex> guard(mutex);
        opened.wait(guard, [this] { return isOpen; });
    }

private:
    std::mutex mutex;
    std::condition_variable opened;
    bool isOpen = false;
};

#endif
