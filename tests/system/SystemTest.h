#ifndef LUMORA_TESTS_SYSTEM_SYSTEMTEST_H
#define LUMORA_TESTS_SYSTEM_SYSTEMTEST_H

#include "ports/MIDIPortAccessor.h"
#include "transport/MIDIPortList.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"

#include <QString>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

using Bytes = std::vector<unsigned char>;

inline std::ostream& operator<<(std::ostream& stream, const QString& text)
{
    return stream << '"' << text.toUtf8().constData() << '"';
}

inline std::ostream& operator<<(std::ostream& stream, const QUuid& id)
{
    return stream << id.toString();
}

/// The cable that every test of this program finds, by 1-based number.
namespace Cable {
enum Input { kPlainInput = 1, kSemicolonInput, kBusyInput, kRefusingInput, kNamelessInput };
enum Output { kPlainOutput = 1, kLongNameOutput };
} // namespace Cable

extern const char kCableDescription[];

extern const char kOrganization[];
extern const char kApplication[];

/// A SysEx message of `length` bytes with every data byte in it.
inline Bytes sysEx(std::size_t length)
{
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>((i * 11 + i / 128) % 128);
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

/// An observer that keeps what it gets.
class Inbox : public TMIDIReaderRefConInterface
{
public:
    virtual ~Inbox() = default;

    int read(int length, const void* data, bool, bool) override
    {
        if (onRead)
            onRead();
        const unsigned char* const bytes = static_cast<const unsigned char*>(data);
        {
            const std::lock_guard<std::mutex> guard(mutex);
            received.emplace_back(bytes, bytes + length);
        }
        arrived.notify_all();
        return length;
    }

    bool waitFor(std::size_t count, std::chrono::seconds limit = std::chrono::seconds(20))
    {
        std::unique_lock<std::mutex> guard(mutex);
        return arrived.wait_for(guard, limit, [&] { return received.size() >= count; });
    }

    std::vector<Bytes> messages() const
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return received;
    }

    std::function<void()> onRead;

private:
    mutable std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Bytes> received;
};

/// A host: an accessor, a transport for it and an inbox.
class HostTest : public testing::Test
{
protected:
    void SetUp() override
    {
        accessor = MIDIPortAccessor(kOrganization, kApplication);
        transport = &MIDITransportInstance(accessor);
        ASSERT_TRUE(transport->valid());
        transport->registerMIDIobserver(&inbox);
    }

    void TearDown() override
    {
        transport->Release();
        accessor->Release();
    }

    Inbox inbox;
    IMIDIPortAccessor* accessor = nullptr;
    TMIDITransport* transport = nullptr;
};

#endif
