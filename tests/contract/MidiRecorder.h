// Clients of WinMM for tests, which record the parameters of their callbacks.
#pragma once

#include <windows.h>

#include <mmsystem.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace contract {

using Bytes = std::vector<unsigned char>;

// One call of a callback.
struct Notice
{
    UINT message;
    DWORD parameter1;
    DWORD parameter2;
    MIDIHDR* header = nullptr; // the returned one
    Bytes bytes;               // of an input: the header's data
    DWORD flags = 0;           // the header's
    std::thread::id thread;
};

class Recorder
{
public:
    static constexpr std::chrono::seconds kPatience{10};

    // What to do in the callback besides recording; set before the port is opened.
    std::function<void(const Notice&)> also;

    // Registers a header that may come back: callbacks pass the low half of its address.
    void expect(MIDIHDR* header)
    {
        const std::lock_guard<std::mutex> guard(lock_);
        headers_[lowHalf(header)] = header;
    }

    DWORD_PTR instance() { return reinterpret_cast<DWORD_PTR>(this); }
    static DWORD_PTR inputCallback() { return reinterpret_cast<DWORD_PTR>(&onInput); }
    static DWORD_PTR outputCallback() { return reinterpret_cast<DWORD_PTR>(&onOutput); }

    void take(UINT message, DWORD parameter1, DWORD parameter2)
    {
        Notice notice{message, parameter1, parameter2, nullptr, {}, 0, std::this_thread::get_id()};
        {
            const std::lock_guard<std::mutex> guard(lock_);
            const bool ofInput = message == MIM_LONGDATA || message == MIM_LONGERROR;
            const auto found = headers_.find(parameter1);
            if ((ofInput || message == MOM_DONE) && found != headers_.end()) {
                notice.header = found->second;
                notice.flags = notice.header->dwFlags;
                const auto* data = reinterpret_cast<const unsigned char*>(notice.header->lpData);
                if (ofInput)
                    notice.bytes.assign(data, data + notice.header->dwBytesRecorded);
            }
            if (message == MIM_LONGDATA)
                longLength_ += notice.bytes.size();
            all_.push_back(notice);
        }
        arrived_.notify_all();
        if (also)
            also(notice);
    }

    std::vector<Notice> notices(UINT message)
    {
        const std::lock_guard<std::mutex> guard(lock_);
        std::vector<Notice> result;
        for (const Notice& notice : all_)
            if (notice.message == message)
                result.push_back(notice);
        return result;
    }

    std::vector<Notice> notices()
    {
        const std::lock_guard<std::mutex> guard(lock_);
        return all_;
    }

    // Waits for that many, or until a time limit; returns those that have come.
    std::vector<Notice> waitFor(UINT message, std::size_t count)
    {
        waitUntil([&] { return this->count(message) >= count; });
        return notices(message);
    }

    std::vector<DWORD> waitForShort(std::size_t count)
    {
        std::vector<DWORD> words;
        for (const Notice& notice : waitFor(MIM_DATA, count))
            words.push_back(notice.parameter1);
        return words;
    }

    // The bytes of all MIM_LONGDATA in order, once there are that many.
    Bytes waitForLong(std::size_t length)
    {
        waitUntil([&] { return longLength_ >= length; });
        Bytes result;
        for (const Notice& notice : notices(MIM_LONGDATA))
            result.insert(result.end(), notice.bytes.begin(), notice.bytes.end());
        return result;
    }

private:
    std::size_t count(UINT message) const
    {
        std::size_t result = 0;
        for (const Notice& notice : all_)
            result += notice.message == message ? 1u : 0u;
        return result;
    }

    template <class Condition>
    void waitUntil(const Condition& condition)
    {
        std::unique_lock<std::mutex> guard(lock_);
        arrived_.wait_for(guard, kPatience, condition);
    }

    static DWORD lowHalf(const MIDIHDR* header)
    {
        return static_cast<DWORD>(reinterpret_cast<DWORD_PTR>(header));
    }

    // The parameters have 32 bits, as a 32-bit `unsigned long` in a client's callback has.
    static void CALLBACK onInput(HMIDIIN, UINT message, DWORD_PTR instance, DWORD parameter1,
                                 DWORD parameter2)
    {
        reinterpret_cast<Recorder*>(instance)->take(message, parameter1, parameter2);
    }

    static void CALLBACK onOutput(HMIDIOUT, UINT message, DWORD_PTR instance, DWORD parameter1,
                                  DWORD parameter2)
    {
        reinterpret_cast<Recorder*>(instance)->take(message, parameter1, parameter2);
    }

    std::mutex lock_;
    std::condition_variable arrived_;
    std::vector<Notice> all_;
    std::map<DWORD, MIDIHDR*> headers_;
    std::size_t longLength_ = 0;
};

// A header with the memory that it describes.
class Buffer
{
public:
    explicit Buffer(std::size_t length) : Buffer(Bytes(length)) {}
    explicit Buffer(Bytes bytes) : bytes_(std::move(bytes))
    {
        header_.lpData = reinterpret_cast<LPSTR>(bytes_.data());
        header_.dwBufferLength = static_cast<DWORD>(bytes_.size());
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    // A header must not move while a driver has it.
    Buffer(Buffer&&) = delete;
    Buffer& operator=(Buffer&&) = delete;

    MIDIHDR* header() { return &header_; }
    DWORD flags() const { return __atomic_load_n(&header_.dwFlags, __ATOMIC_ACQUIRE); }
    DWORD recorded() const { return header_.dwBytesRecorded; }

private:
    Bytes bytes_;
    MIDIHDR header_ = {};
};

// An input that a test has open. The destructor closes it and frees its buffers.
class Input
{
public:
    explicit Input(UINT device = 0)
    {
        result = midiInOpen(&handle, device, Recorder::inputCallback(), recorder.instance(),
                            CALLBACK_FUNCTION);
    }
    Input(UINT device, std::function<void(const Notice&)> also)
    {
        recorder.also = std::move(also);
        result = midiInOpen(&handle, device, Recorder::inputCallback(), recorder.instance(),
                            CALLBACK_FUNCTION);
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() { close(); }

    MMRESULT prepare(Buffer& buffer)
    {
        recorder.expect(buffer.header());
        return midiInPrepareHeader(handle, buffer.header(), sizeof(MIDIHDR));
    }
    MMRESULT unprepare(Buffer& buffer)
    {
        return midiInUnprepareHeader(handle, buffer.header(), sizeof(MIDIHDR));
    }
    MMRESULT queue(Buffer& buffer)
    {
        return midiInAddBuffer(handle, buffer.header(), sizeof(MIDIHDR));
    }

    // Prepares and queues new buffers; null if the input does not take one.
    std::vector<Buffer*> giveBuffers(std::size_t count, std::size_t length)
    {
        std::vector<Buffer*> given;
        for (std::size_t i = 0; i < count; ++i) {
            buffers_.push_back(std::make_unique<Buffer>(length));
            Buffer& buffer = *buffers_.back();
            const bool taken =
                prepare(buffer) == MMSYSERR_NOERROR && queue(buffer) == MMSYSERR_NOERROR;
            given.push_back(taken ? &buffer : nullptr);
        }
        return given;
    }

    MMRESULT start() { return midiInStart(handle); }
    MMRESULT stop() { return midiInStop(handle); }
    MMRESULT reset() { return midiInReset(handle); }

    void close()
    {
        if (result != MMSYSERR_NOERROR || !handle)
            return;
        midiInReset(handle);
        for (const auto& buffer : buffers_)
            midiInUnprepareHeader(handle, buffer->header(), sizeof(MIDIHDR));
        midiInClose(handle);
        handle = nullptr;
    }

    Recorder recorder;
    HMIDIIN handle = nullptr;
    MMRESULT result = MMSYSERR_ERROR; // of the opening

private:
    std::vector<std::unique_ptr<Buffer>> buffers_;
};

// The same for an output.
class Output
{
public:
    explicit Output(UINT device = 0)
    {
        result = midiOutOpen(&handle, device, Recorder::outputCallback(), recorder.instance(),
                             CALLBACK_FUNCTION);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output() { close(); }

    MMRESULT prepare(Buffer& buffer)
    {
        recorder.expect(buffer.header());
        return midiOutPrepareHeader(handle, buffer.header(), sizeof(MIDIHDR));
    }
    MMRESULT unprepare(Buffer& buffer)
    {
        return midiOutUnprepareHeader(handle, buffer.header(), sizeof(MIDIHDR));
    }
    MMRESULT queue(Buffer& buffer)
    {
        return midiOutLongMsg(handle, buffer.header(), sizeof(MIDIHDR));
    }
    MMRESULT sendShort(DWORD word) { return midiOutShortMsg(handle, word); }
    MMRESULT reset() { return midiOutReset(handle); }

    // Queues a long message without waiting for it; null if it was refused.
    Buffer* beginLong(const Bytes& bytes)
    {
        buffers_.push_back(std::make_unique<Buffer>(bytes));
        Buffer& buffer = *buffers_.back();
        return prepare(buffer) == MMSYSERR_NOERROR && queue(buffer) == MMSYSERR_NOERROR ? &buffer
                                                                                        : nullptr;
    }

    // Sends a long message and waits until it is done.
    bool sendLong(const Bytes& bytes)
    {
        const std::size_t before = recorder.notices(MOM_DONE).size();
        Buffer* buffer = beginLong(bytes);
        return buffer && recorder.waitFor(MOM_DONE, before + 1).size() > before &&
               unprepare(*buffer) == MMSYSERR_NOERROR;
    }

    void close()
    {
        if (result != MMSYSERR_NOERROR || !handle)
            return;
        midiOutReset(handle);
        for (const auto& buffer : buffers_)
            midiOutUnprepareHeader(handle, buffer->header(), sizeof(MIDIHDR));
        midiOutClose(handle);
        handle = nullptr;
    }

    Recorder recorder;
    HMIDIOUT handle = nullptr;
    MMRESULT result = MMSYSERR_ERROR; // of the opening

private:
    std::vector<std::unique_ptr<Buffer>> buffers_;
};

// A SysEx message of `length` bytes without repetitions.
inline Bytes sysEx(std::size_t length)
{
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>((i * 5 + i / 128) & 0x7F);
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

// Long enough for a fault to show.
inline void waitAWhile()
{
    Sleep(60);
}

} // namespace contract
