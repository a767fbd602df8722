// An open input: what arrives is put into the client's buffers or called back as a short message,
// and the generators of its settings play.
#pragma once

#include "workbench/device/Port.h"

namespace device {

// Distinguishes the senders that feed one input, so that their SysEx messages are not mixed into
// one. Never 0, never the same twice in a process.
using SourceId = std::uint64_t;
SourceId nextSourceId();

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

    // From the senders, on any thread. Nothing is heard while the input is stopped.
    // The Windows 11 kind leaves it to its worker.
    void take(SourceId source, const MIDIPiece& piece);
    // Now, on this thread. Returns how many bytes found room, and 1 for a short message taken.
    std::size_t takeNow(SourceId source, const MIDIPiece& piece);

    // Hands the next queued buffer back with any code and any dwBytesRecorded, started or not. As
    // many of the bytes as fit are copied into it. Null if no buffer is queued.
    MIDIHDR* returnBuffer(UINT code, DWORD bytesRecorded, const void* bytes, std::size_t length);

    // What the queued buffers hold together, counted until `enough`.
    std::size_t room(std::size_t enough);

private:
    // What waits for the worker.
    struct Arrival
    {
        SourceId source;
        MIDIPiece piece;
        std::vector<unsigned char> bytes; // of the piece
        std::int64_t at;
    };

    DWORD work(Lock& held) override;
    std::size_t queuedHeaders() const override { return buffers.size(); }
    void endWork() override;
    void discardWork() override;
    void touchKept(Lock& held) override;

    MMRESULT stopWorker();
    std::size_t deliver(SourceId source, const MIDIPiece& piece);
    bool deliverShort(DWORD word);
    std::size_t deliverSysEx(SourceId source, MIDIPiece piece);

    // With the lock held.
    DWORD timeStamp() const;
    bool awaitBuffer(Lock& held, DWORD milliseconds);
    std::size_t fillFirst(Lock& held, MIDIPiece& piece);
    void breakOff(Lock& held);
    Notice giveBackFirst(UINT message);
    Notices giveBackPartial();
    DWORD play(Lock& held);
    MIDIPiece compose(const Generator& playing, BYTE* buffer);

    std::deque<MIDIHDR*> buffers; // queued by the client; the first one may be partly filled
    DWORD filled = 0;             // bytes in the first buffer
    Condition bufferAdded;        // or the input stopped
    std::atomic<bool> started{false};
    std::atomic<std::int64_t> startedAt{0}; // 0: stamps are the machine's time

    SourceId sysExSource = 0; // whose SysEx message is arriving, 0: none
    bool dropping = false;    // its rest
    bool found = true;        // a buffer, at the last F0; of the Windows 11 kind
    std::deque<Arrival> arrivals;

    // Where the generators are since the start.
    struct Progress
    {
        std::size_t turn = 0;   // of the generators, one after the other
        DWORD produced = 0;     // messages or bytes of the generator at work
        std::int64_t since = 0; // when that began
        DWORD floods = 0;       // messages of all floods
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
