// An open input: what arrives is put into the client's buffers or called back as a short message,
// and the generators of its settings play.
#pragma once

#include "workbench/device/Port.h"

namespace device {

// Distinguishes the senders that feed one input, so that their SysEx messages are not mixed into
// one. Never 0, never the same twice in a process.
using SourceId = std::uint64_t;
SourceId nextSourceId();

// Lets a sender wait; false if it shall give up instead. Called without any lock of the input.
using Pause = std::function<bool(DWORD milliseconds)>;

class InputPort : public Port
{
public:
    InputPort(const Settings& settings, Callback callback);
    ~InputPort() override;

    // The client's calls.
    MMRESULT addBuffer(MIDIHDR* header, DWORD_PTR size);
    MMRESULT start();
    MMRESULT stop();
    MMRESULT reset();

    bool isStarted() const { return started.load(); }

    // From the senders, on any thread. Nothing is heard while the input is stopped: false. SysEx
    // without a buffer may wait, by `pause`, as long as the settings' `hold` says.
    bool shortMessage(DWORD word);
    // Any of these, by the worker if the port has one.
    void take(SourceId source, const MIDIPiece& piece, const Pause& pause);
    // Returns how many bytes found room.
    std::size_t sysEx(SourceId source, MIDIPiece piece, const Pause& pause = nullptr);
    void sysExBroken(SourceId source);
    bool takesAtOnce() const { return settings.hold == 0 || settings.worker; }

    // Hands the next queued buffer back with any code and any dwBytesRecorded, started or not. As
    // many of the bytes as fit are copied into it. Null if no buffer is queued.
    MIDIHDR* returnBuffer(UINT code, DWORD bytesRecorded, const void* bytes, std::size_t length);

    // What the queued buffers hold together, counted until `enough`.
    std::size_t room(std::size_t enough);

private:
    DWORD work(Lock& held) override;
    DWORD queuedHeaders() const override;
    void endWork() override;
    void discardWork() override;
    void touchKept(Lock& held) override;

    // What waits for the worker.
    struct Arrival
    {
        SourceId source;
        MIDIPiece piece;
        std::vector<unsigned char> bytes; // of the piece
        std::int64_t at;
    };
    void leaveToWorker(SourceId source, const MIDIPiece& piece);

    // Of the Windows 11 kind.
    MMRESULT stopWorker();
    void awaitPortLock();
    std::size_t handle(SourceId source, MIDIPiece piece);
    bool handleShort(DWORD word);
    bool awaitBuffer(Lock& held, DWORD milliseconds);
    void breakOff(Lock& held);

    // With the lock held.
    DWORD timeStamp() const;
    bool accepts(Lock& held, SourceId source, const MIDIPiece& piece);
    std::size_t fillFirst(Lock& held, MIDIPiece& piece);
    void endSysEx(Lock& held, UINT message);
    void giveBackFirst(Lock& held, UINT message);
    Notices stopAndTakePartial();
    DWORD play(Lock& held);
    DWORD playDump(Lock& held, const Generator& dump, std::int64_t now);
    void nextGenerator();

    std::deque<MIDIHDR*> buffers; // queued by the client; the first one may be partly filled
    DWORD filled = 0;             // bytes in the first buffer
    std::atomic<bool> started{false};
    static constexpr std::int64_t kNever = -1;
    std::atomic<std::int64_t> startedAt{kNever};
    SourceId sysExSource = 0; // whose SysEx message is arriving, 0: none

    std::deque<Arrival> arrivals;
    Condition bufferAdded;
    bool dropping = false; // the rest of the message that arrives
    bool found = true;     // a buffer, at the last F0

    // Where the generators are since the start.
    struct Progress
    {
        std::size_t generator = 0;
        DWORD round = 0;
        DWORD produced = 0;          // messages or bytes of the generator at work
        std::int64_t since = 0;      // when that began
        std::int64_t lastPlayed = 0; // when a dump last found room in a buffer
        DWORD floods = 0;            // messages of all floods
        DWORD dumps = 0;
    };
    Progress progress;
    const SourceId self = nextSourceId();
};

// Message n of a flood: note-ons with status 90 + (n / 16384) mod 16 and the data bytes
// (n / 128) mod 128 and n mod 128: 262,144 different ones.
DWORD floodWord(DWORD number);
// Byte `offset` of dump `number`: F0 7D, (offset + offset / 128 + number) mod 128, F7.
BYTE dumpByte(DWORD offset, DWORD length, DWORD number);

} // namespace device
