// What travels between two processes: a frame is one message of the pipe and holds whole pieces,
// each a MIDIPiece as it lies in memory and its bytes. The receiver answers every frame with one
// byte once the input has it.
#pragma once

#include "transport/MIDIByteStream.h"
#include "workbench/cable/System.h"

namespace cable {

constexpr DWORD kLargestFrame = 32 * 1024;
constexpr BYTE kFrameTaken = 1;

// By position, so that every process reaches the same input whatever its description calls it, and
// within the group that LUMORA_CABLE_GROUP names.
inline std::wstring pipeName(unsigned inputPosition)
{
    std::wstring group = environment(L"LUMORA_CABLE_GROUP").value_or(L"").substr(0, 63);
    if (!group.empty())
        group += L'-';
    return L"\\\\.\\pipe\\lumora-cable-" + group + L"in-" + std::to_wstring(inputPosition);
}

} // namespace cable
