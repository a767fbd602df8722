// No library: the calls that any of them has to make, as the floor below them. Settings:
//
//   direct          the callback calls the observer; short messages go out as such
//   long            likewise, but they go out as long messages, as ours sends them
//   hop             like long, but the callback queues what arrives and signals an event, and a
//                   thread that waits for it calls the observer: the least that a library can do
//                   that keeps its user off the driver's thread

#include "Library.h"

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <windows.h>

#include <mmsystem.h>

namespace {

class SlimLock
{
public:
    void lock() { AcquireSRWLockExclusive(&native); }
    void unlock() { ReleaseSRWLockExclusive(&native); }

private:
    SRWLOCK native = SRWLOCK_INIT;
};

class WinMMLibrary final : public Library
{
public:
    WinMMLibrary(Observer& observer, bool sendsLong, bool hops)
        : observer(observer), sendsLong(sendsLong), hops(hops), headers(kLargeBufferCount),
          data(std::size_t(kLargeBufferCount) * kLargeBufferSize)
    {}

    ~WinMMLibrary() override
    {
        WinMMLibrary::closeInput();
        if (output) {
            midiOutReset(output);
            midiOutUnprepareHeader(output, &sent, sizeof sent);
            midiOutClose(output);
        }
        CloseHandle(arrived);
        CloseHandle(done);
    }

    bool openInput() override
    {
        closing = false;
        if (midiInOpen(&input, 0, reinterpret_cast<DWORD_PTR>(&WinMMLibrary::received),
                       reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION) != MMSYSERR_NOERROR)
            return false;
        for (std::size_t i = 0; i < headers.size(); ++i) {
            headers[i] = {};
            headers[i].lpData = data.data() + i * kLargeBufferSize;
            headers[i].dwBufferLength = kLargeBufferSize;
            midiInPrepareHeader(input, &headers[i], sizeof(MIDIHDR));
            midiInAddBuffer(input, &headers[i], sizeof(MIDIHDR));
        }
        if (hops)
            thread = std::thread([this] { deliverQueued(); });
        return midiInStart(input) == MMSYSERR_NOERROR;
    }

    void closeInput() override
    {
        closing = true;
        if (thread.joinable()) {
            SetEvent(arrived);
            thread.join();
        }
        if (!input)
            return;
        midiInStop(input);
        midiInReset(input);
        for (MIDIHDR& header : headers)
            midiInUnprepareHeader(input, &header, sizeof header);
        midiInClose(input);
        input = nullptr;
    }

    bool openOutput() override
    {
        return midiOutOpen(&output, 0, reinterpret_cast<DWORD_PTR>(&WinMMLibrary::finished),
                           reinterpret_cast<DWORD_PTR>(this),
                           CALLBACK_FUNCTION) == MMSYSERR_NOERROR;
    }

    bool send(const unsigned char* bytes, std::size_t length) override
    {
        if (!sendsLong && length == 3) {
            const DWORD word = bytes[0] | DWORD(bytes[1]) << 8 | DWORD(bytes[2]) << 16;
            return midiOutShortMsg(output, word) == MMSYSERR_NOERROR;
        }
        for (std::size_t at = 0; at < length; at += outBuffer.size()) {
            const std::size_t chunk = std::min(outBuffer.size(), length - at);
            if (!sendChunk(bytes + at, chunk))
                return false;
            if (length > outBuffer.size()) // the last one of these, too: it is the device's time
                WaitForSingleObject(done, INFINITE);
        }
        return true;
    }

private:
    bool sendChunk(const unsigned char* bytes, std::size_t length)
    {
        while (midiOutUnprepareHeader(output, &sent, sizeof sent) == MIDIERR_STILLPLAYING)
            Sleep(0);
        sent = {};
        std::memcpy(outBuffer.data(), bytes, length);
        sent.lpData = outBuffer.data();
        sent.dwBufferLength = static_cast<DWORD>(length);
        return midiOutPrepareHeader(output, &sent, sizeof sent) == MMSYSERR_NOERROR &&
               midiOutLongMsg(output, &sent, sizeof sent) == MMSYSERR_NOERROR;
    }

    static void CALLBACK finished(HMIDIOUT, UINT message, DWORD_PTR self, DWORD_PTR, DWORD_PTR)
    {
        // A short message's end is nobody's concern; an event costs time.
        WinMMLibrary* const library = reinterpret_cast<WinMMLibrary*>(self);
        if (message == MOM_DONE && library->sent.dwBufferLength > 3)
            SetEvent(library->done);
    }

    static void CALLBACK received(HMIDIIN, UINT message, DWORD_PTR self, DWORD_PTR parameter,
                                  DWORD_PTR)
    {
        WinMMLibrary* const library = reinterpret_cast<WinMMLibrary*>(self);
        if (message != MIM_DATA && message != MIM_LONGDATA)
            return;
        if (library->closing)
            return;
        if (!library->hops) {
            library->deliver({message, parameter});
            return;
        }
        {
            const std::lock_guard<SlimLock> guard(library->lock);
            library->queue.push_back({message, parameter});
        }
        SetEvent(library->arrived);
    }

    struct Record
    {
        UINT message;
        DWORD_PTR parameter;
    };

    void deliverQueued()
    {
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
        while (!closing) {
            WaitForSingleObject(arrived, INFINITE);
            Record record;
            while (takeRecord(&record))
                deliver(record);
        }
    }

    bool takeRecord(Record* record)
    {
        const std::lock_guard<SlimLock> guard(lock);
        if (queue.empty())
            return false;
        *record = queue.front();
        queue.pop_front();
        return true;
    }

    void deliver(const Record& record)
    {
        if (record.message == MIM_DATA) {
            unsigned char bytes[sizeof(DWORD)];
            const DWORD word = static_cast<DWORD>(record.parameter);
            std::memcpy(bytes, &word, sizeof bytes);
            observer.receive(bytes, 3);
            return;
        }
        MIDIHDR* const header = reinterpret_cast<MIDIHDR*>(record.parameter);
        observer.receive(reinterpret_cast<const unsigned char*>(header->lpData),
                         header->dwBytesRecorded);
        midiInAddBuffer(input, header, sizeof *header);
    }

    Observer& observer;
    const bool sendsLong;
    const bool hops;
    std::vector<MIDIHDR> headers;
    std::vector<char> data;
    HMIDIIN input = nullptr;
    HMIDIOUT output = nullptr;
    MIDIHDR sent = {};
    std::array<char, kLargeBufferSize> outBuffer = {};
    const HANDLE arrived = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    SlimLock lock;
    std::deque<Record> queue;
    std::atomic<bool> closing{false};
    std::thread thread;
};

} // namespace

std::unique_ptr<Library> makeLibrary(const std::string& setting, Observer& observer)
{
    if (setting != "direct" && setting != "long" && setting != "hop")
        return nullptr;
    return std::make_unique<WinMMLibrary>(observer, setting != "direct", setting == "hop");
}
