#include "SimWire.h"

namespace sim::internal {

namespace {

unsigned dataBytesOf(unsigned char status)
{
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0:
        return 1;
    case 0xF0:
        return status == 0xF2 ? 2 : status == 0xF1 || status == 0xF3 ? 1 : 0;
    default:
        return 2;
    }
}

} // namespace

std::vector<WireMessage> WireParser::parse(const unsigned char* bytes, std::size_t length)
{
    messages.clear();
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char byte = bytes[i];
        if (byte >= 0xF8) {
            endSysExPiece(); // real-time messages may stand anywhere, and keep their place
            messages.push_back({true, byte, {}});
        } else if (byte >= 0x80) {
            takeStatus(byte);
        } else {
            takeData(byte);
        }
    }
    endSysExPiece();
    return std::move(messages);
}

void WireParser::takeStatus(unsigned char byte)
{
    if (byte == 0xF7) {
        if (inSysEx)
            sysEx.push_back(byte);
        endSysExPiece();
        inSysEx = false;
        status = 0;
        return;
    }
    endSysExPiece();
    inSysEx = byte == 0xF0;
    status = inSysEx ? 0 : byte;
    dataTaken = 0;
    packed = byte;
    dataExpected = dataBytesOf(byte);
    if (inSysEx) {
        sysEx.push_back(byte);
    } else if (dataExpected == 0) {
        messages.push_back({true, packed, {}});
        status = 0;
    }
}

void WireParser::takeData(unsigned char byte)
{
    if (inSysEx) {
        sysEx.push_back(byte);
        return;
    }
    if (status == 0)
        return; // a data byte that belongs to nothing
    ++dataTaken;
    packed |= DWORD(byte) << (8 * dataTaken);
    if (dataTaken < dataExpected)
        return;
    messages.push_back({true, packed, {}});
    // Running status holds for channel messages only.
    packed = status;
    dataTaken = 0;
    if (status >= 0xF0)
        status = 0;
}

void WireParser::endSysExPiece()
{
    if (sysEx.empty())
        return;
    messages.push_back({false, 0, std::move(sysEx)});
    sysEx.clear();
}

} // namespace sim::internal
