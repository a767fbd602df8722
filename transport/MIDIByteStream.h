#ifndef LUMORA_TRANSPORT_MIDIBYTESTREAM_H
#define LUMORA_TRANSPORT_MIDIBYTESTREAM_H

// Parses a stream of MIDI bytes as a receiver does, for lumora-midi and the virtual device. Needs
// neither Qt nor Windows.

#include "transport/MIDIStatus.h"

#include <cstddef>
#include <cstdint>

static const unsigned char kFirstRealtime = 0xF8;

inline bool isMIDIStatus(unsigned char byte)
{
    return byte >= 0x80;
}

/// The length in bytes of a message that begins with `status`: 1 to 3; 0 if it has no fixed length:
/// F0, F7, the undefined F4 and F5, and data bytes. TMIDITransport::midi_msg_length() has other
/// values, which hosts rely on.
inline std::size_t midiMessageLength(unsigned char status)
{
    if (!isMIDIStatus(status))
        return 0;
    if (isChannelStatus(status))
        return (status & 0xE0) == 0xC0 ? 2 : 3; // program change and channel pressure have one
    if (status >= kFirstRealtime)
        return 1;
    constexpr unsigned char systemCommon[8] = {0, 2, 3, 2, 0, 0, 1, 0};
    return systemCommon[status & 7];
}

/// A piece of a stream.
struct MIDIPiece
{
    enum class Kind {
        Short,  // one message: `word`
        SysEx,  // bytes of one SysEx message, never interrupted by another byte
        Broken, // the SysEx message before ended without F7
        Noise,  // `length` bytes that belong to no message
    };
    Kind kind;
    std::uint32_t word = 0; // status byte lowest; what the message does not use is 0
    const unsigned char* bytes = nullptr;
    std::size_t length = 0;
    bool first = false; // begins with F0
    bool last = false;  // ends with F7
};

/// Keeps running status and an unfinished message from one call to the next. One thread at a time.
class MIDIByteStream
{
public:
    /// Calls take(piece) for each piece of the data, in order. Pieces point into `data`.
    template <typename Take>
    void bytes(const unsigned char* data, std::size_t length, Take take)
    {
        std::size_t at = 0;
        while (at < length) {
            const unsigned char byte = data[at];
            if (byte >= kFirstRealtime) { // allowed anywhere, changes nothing
                take(shortPiece(byte));
                ++at;
            } else if (byte == kSysExStart ||
                       (inSysEx && (!isMIDIStatus(byte) || byte == kSysExEnd))) {
                at += sysEx(data + at, length - at, take);
            } else if (isMIDIStatus(byte)) {
                statusByte(byte, take);
                ++at;
            } else {
                dataByte(byte, take);
                ++at;
            }
        }
    }

    /// Takes one message in a double word; a first byte below 80 uses the running status. False if
    /// it is not a message.
    template <typename Take>
    bool shortMessage(std::uint32_t message, Take take)
    {
        unsigned char status = static_cast<unsigned char>(message);
        if (!isMIDIStatus(status)) {
            if (!running)
                return false;
            status = running;
            message = message << 8 | status;
        }
        const std::size_t length = midiMessageLength(status);
        if (length == 0)
            return false;
        if (status < kFirstRealtime)
            begin(status, take);
        take(shortPiece(message & 0xFFFFFFFFu >> (32 - 8 * length)));
        return true;
    }

private:
    static MIDIPiece shortPiece(std::uint32_t message) { return {MIDIPiece::Kind::Short, message}; }

    // Takes SysEx up to the next status byte, including F7. Returns the number of bytes.
    template <typename Take>
    std::size_t sysEx(const unsigned char* data, std::size_t length, Take take)
    {
        const bool first = data[0] == kSysExStart;
        if (first) {
            begin(kSysExStart, take);
            inSysEx = true;
        }
        std::size_t end = first ? 1 : 0;
        while (end < length && !isMIDIStatus(data[end]))
            ++end;
        const bool last = end < length && data[end] == kSysExEnd;
        if (last) {
            ++end;
            inSysEx = false;
        }
        take(MIDIPiece{MIDIPiece::Kind::SysEx, 0, data, end, first, last});
        return end;
    }

    // Any status byte except realtime ends an unfinished message.
    template <typename Take>
    void begin(unsigned char status, Take take)
    {
        if (inSysEx)
            take(MIDIPiece{MIDIPiece::Kind::Broken});
        inSysEx = false;
        running = isChannelStatus(status) ? status : static_cast<unsigned char>(0);
        expected = 0;
    }

    template <typename Take>
    void statusByte(unsigned char status, Take take)
    {
        begin(status, take);
        word = status;
        collected = 1;
        expected = midiMessageLength(status);
        if (expected == 0)
            take(noise());
        else if (expected == 1)
            complete(take);
    }

    template <typename Take>
    void dataByte(unsigned char data, Take take)
    {
        if (expected == 0) {
            if (!running) {
                take(noise());
                return;
            }
            word = running;
            collected = 1;
            expected = midiMessageLength(running);
        }
        word |= static_cast<std::uint32_t>(data) << (8 * collected);
        if (++collected == expected)
            complete(take);
    }

    template <typename Take>
    void complete(Take take)
    {
        expected = 0;
        take(shortPiece(word));
    }

    static MIDIPiece noise() { return {MIDIPiece::Kind::Noise, 0, nullptr, 1}; }

    bool inSysEx = false;
    unsigned char running = 0; // channel status that data bytes without one belong to, 0: none
    std::uint32_t word = 0;    // the message being collected
    std::size_t collected = 0;
    std::size_t expected = 0; // 0: none is being collected
};

#endif
