// What travels between two processes: a frame is one message of the pipe and holds whole pieces,
// each a PieceHeader and, for SysEx, its bytes. The receiver answers every frame with one byte once
// the input has it.

#ifndef LUMORA_CABLE_FRAME_H
#define LUMORA_CABLE_FRAME_H

#include <string>
#include <windows.h>

namespace cable {

constexpr DWORD kLargestFrame = 32 * 1024;
constexpr BYTE kFrameTaken = 1;

struct PieceHeader
{
    static constexpr DWORD Short = 0;
    static constexpr DWORD SysEx = 1;
    static constexpr DWORD SysExBroken = 2;

    static constexpr DWORD First = 1;
    static constexpr DWORD Last = 2;

    DWORD kind;
    DWORD flags; // of a SysEx piece
    DWORD value; // the message, or the number of bytes that follow
};

// By position, so that every process reaches the same input whatever its description calls it, and
// within the group that LUMORA_CABLE_GROUP names.
std::wstring pipeName(unsigned inputPosition);

} // namespace cable

#endif
