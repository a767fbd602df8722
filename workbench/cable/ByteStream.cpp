#include "ByteStream.h"

namespace cable {
namespace {

constexpr BYTE kSysExStart = 0xF0;
constexpr BYTE kSysExEnd = 0xF7;
constexpr BYTE kFirstRealtime = 0xF8;

bool isStatus(BYTE byte)
{
    return byte >= 0x80;
}

bool isChannelStatus(BYTE byte)
{
    return byte >= 0x80 && byte < 0xF0;
}

} // namespace

size_t messageLength(BYTE status)
{
    if (!isStatus(status))
        return 0;
    if (isChannelStatus(status))
        return (status & 0xE0) == 0xC0 ? 2 : 3; // program change and channel pressure have one
    if (status >= kFirstRealtime)
        return 1;
    constexpr size_t systemCommon[8] = {0, 2, 3, 2, 0, 0, 1, 0};
    return systemCommon[status & 7];
}

void ByteStream::bytes(const BYTE* data, size_t length)
{
    size_t at = 0;
    while (at < length) {
        if (data[at] >= kFirstRealtime) { // may stand anywhere and changes nothing
            sink_.shortMessage(data[at++]);
            continue;
        }
        const bool starts = data[at] == kSysExStart;
        if (!starts && !(inSysEx_ && !isStatus(data[at])) && !(inSysEx_ && data[at] == kSysExEnd)) {
            if (isStatus(data[at]))
                statusByte(data[at]);
            else
                dataByte(data[at]);
            ++at;
            continue;
        }
        if (starts) {
            endSysEx();
            inSysEx_ = true;
            running_ = 0;
            expected_ = 0;
        }
        size_t end = starts ? at + 1 : at;
        while (end < length && !isStatus(data[end]))
            ++end;
        const bool last = end < length && data[end] == kSysExEnd;
        if (last) {
            ++end;
            inSysEx_ = false;
        }
        sink_.sysEx({data + at, end - at, starts, last});
        at = end;
    }
}

bool ByteStream::shortMessage(DWORD word)
{
    BYTE status = static_cast<BYTE>(word);
    if (!isStatus(status)) {
        if (!running_)
            return false;
        status = running_;
        word = (word << 8) | status;
    }
    const size_t length = messageLength(status);
    if (length == 0)
        return false;
    if (status < kFirstRealtime) {
        endSysEx();
        expected_ = 0;
        running_ = isChannelStatus(status) ? status : BYTE(0);
    }
    sink_.shortMessage(word & (0xFFFFFFFFu >> (32 - 8 * length)));
    return true;
}

// Any status byte but F0 and the realtime ones, and F7 outside SysEx.
void ByteStream::statusByte(BYTE status)
{
    endSysEx();
    running_ = isChannelStatus(status) ? status : BYTE(0);
    word_ = status;
    collected_ = 1;
    expected_ = messageLength(status);
    if (expected_ == 1) {
        expected_ = 0;
        sink_.shortMessage(word_);
    } else if (expected_ == 0) {
        sink_.noise(1);
    }
}

void ByteStream::dataByte(BYTE data)
{
    if (expected_ == 0) {
        if (!running_) {
            sink_.noise(1);
            return;
        }
        word_ = running_;
        collected_ = 1;
        expected_ = messageLength(running_);
    }
    word_ |= static_cast<DWORD>(data) << (8 * collected_);
    if (++collected_ == expected_) {
        expected_ = 0;
        sink_.shortMessage(word_);
    }
}

void ByteStream::endSysEx()
{
    if (inSysEx_)
        sink_.sysExBroken();
    inSysEx_ = false;
}

} // namespace cable
