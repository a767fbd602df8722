// The list of ports that the cable shows, read from text (README.md has the syntax).
#pragma once

#include "workbench/device/Settings.h"

#include <optional>
#include <string>

namespace cable {

// One line of the description.
struct PortDescription : device::Settings
{
    std::wstring name;
    bool isInput = true;
    bool logHeld = false; // of an input

    // Of an output.
    std::optional<DWORD> to; // position from 1 of the input that it feeds, 0: nowhere
    DWORD failLongAt = 0;    // the number of the call that fails, from 1
    DWORD resetTakes = 0;    // milliseconds until a reset has finished what was to be sent
};

// From the environment: LUMORA_CABLE, else the file that LUMORA_CABLE_FILE names, else one
// connected pair. Complains of each line that it leaves out.
std::vector<PortDescription> readDescription();

} // namespace cable
