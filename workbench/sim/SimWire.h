// Takes the bytes of a MIDI lead apart into what an input driver reports.
#pragma once

#include "mmsystem.h"

#include <cstddef>
#include <vector>

namespace sim::internal {

struct WireMessage
{
    bool isShort;
    DWORD packed;                     // a short message: status byte lowest
    std::vector<unsigned char> bytes; // SysEx data, whole or a piece
};

// Keeps running status, and an unfinished message, from one call to the next.
class WireParser
{
public:
    std::vector<WireMessage> parse(const unsigned char* bytes, std::size_t length);

private:
    void takeStatus(unsigned char byte);
    void takeData(unsigned char byte);
    void endSysExPiece();

    std::vector<WireMessage> messages;
    std::vector<unsigned char> sysEx; // collected in this call
    bool inSysEx = false;
    unsigned char status = 0; // 0: none
    unsigned dataExpected = 0;
    unsigned dataTaken = 0;
    DWORD packed = 0;
};

} // namespace sim::internal
