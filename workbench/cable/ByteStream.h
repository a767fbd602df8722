// Takes a MIDI byte stream apart as the receiver at the far end of a wire would.

#ifndef LUMORA_CABLE_BYTESTREAM_H
#define LUMORA_CABLE_BYTESTREAM_H

#include <cstddef>
#include <windows.h>

namespace cable {

// Bytes of one SysEx message, never interrupted by another byte.
struct SysExPiece
{
    const BYTE* bytes;
    size_t length; // 1 at least
    bool first;    // begins with F0
    bool last;     // ends with F7
};

// Number of bytes of the message that `status` begins: 1 to 3, and 0 for F0, F4, F5 and F7, which
// begin none of a known length.
size_t messageLength(BYTE status);

class MidiSink
{
public:
    // Status byte lowest, then the data bytes; what the message does not use is 0.
    virtual void shortMessage(DWORD word) = 0;
    virtual void sysEx(const SysExPiece& piece) = 0;
    // The SysEx message before ended without F7.
    virtual void sysExBroken() = 0;
    // Bytes that belong to no message.
    virtual void noise(size_t bytes) = 0;

protected:
    ~MidiSink() = default;
};

// Not for two threads at once.
class ByteStream
{
public:
    explicit ByteStream(MidiSink& sink) : sink_(sink) {}

    void bytes(const BYTE* data, size_t length);

    // One message in a double word; a first byte below 80 uses the running status. False if it is
    // no message.
    bool shortMessage(DWORD word);

private:
    void statusByte(BYTE status);
    void dataByte(BYTE data);
    void endSysEx();

    MidiSink& sink_;
    bool inSysEx_ = false;
    BYTE running_ = 0; // channel status that data bytes without one belong to, 0 = none
    DWORD word_ = 0;   // the message being collected
    size_t collected_ = 0;
    size_t expected_ = 0; // 0 = none is being collected
};

} // namespace cable

#endif
