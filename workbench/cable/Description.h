// The list of ports that the cable shows, read from text (README.md has the syntax).
#pragma once

#include "workbench/device/Settings.h"

#include <string>
#include <vector>

namespace cable {

// One line of the description. A number that is 0 means that the option is absent, save `to` and
// `repeat`.
struct PortDescription : device::Settings
{
    std::wstring name;
    bool isInput = true;

    // The number of the call that fails, from 1.
    DWORD failPrepareAt = 0;
    DWORD failAddBufferAt = 0;
    DWORD failLongAt = 0;

    DWORD resetTakes = 0;  // milliseconds until an output has finished what it was to send
    DWORD unplugAfter = 0; // milliseconds from an opening until its port loses the device

    bool logHeld = false; // of an input
    DWORD to = 0;         // of an output: 1-based position of the input that it feeds, 0: nowhere
};

struct Description
{
    std::vector<PortDescription> inputs;
    std::vector<PortDescription> outputs;
    std::vector<std::string> complaints; // one sentence for each line that was left out
};

Description parseDescription(const std::string& utf8);

// From the environment: LUMORA_CABLE, else the file that LUMORA_CABLE_FILE names, else one
// connected pair.
Description readDescription();

} // namespace cable
