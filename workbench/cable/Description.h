// The list of ports that the cable shows, read from text (README.md has the syntax).

#ifndef LUMORA_CABLE_DESCRIPTION_H
#define LUMORA_CABLE_DESCRIPTION_H

#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

namespace cable {

// Which call of a client waits for the callback that is in progress.
enum class WaitKind { Reset, Close, None };

// Something that an input plays by itself while it is started.
struct Generator
{
    enum class Kind { Flood, Dump };
    Kind kind;
    DWORD count;     // messages of a flood, bytes of a dump
    DWORD perSecond; // messages per second; 0 = as fast as the client takes them
};

// One line of the description. A number that is 0 means that the option is absent, save `to` and
// `repeat`.
struct PortDescription
{
    std::wstring name;
    bool isInput = true;

    bool failCaps = false;
    bool failOpen = false;
    bool failStart = false;
    DWORD failPrepareAt = 0;   // the number of the call that fails, from 1
    DWORD failAddBufferAt = 0; // likewise
    DWORD failLongAt = 0;      // likewise

    WaitKind wait = WaitKind::Reset;

    // Inputs
    DWORD split = 0; // bytes after which a buffer goes back although there is room
    DWORD hold = 0;  // milliseconds that SysEx bytes wait for a buffer before they are dropped
    std::vector<Generator> generators;
    DWORD repeat = 1; // 0 = forever
    bool logHeld = false;

    // Outputs
    DWORD to = 0;   // 1-based position of the input that it feeds, 0 = nowhere
    DWORD pace = 0; // bytes per second, 0 = at once
};

struct Description
{
    std::vector<PortDescription> inputs;
    std::vector<PortDescription> outputs;
    std::vector<std::string> complaints; // one sentence for each line that was left out
};

Description parseDescription(std::string_view utf8);

// From the environment: LUMORA_CABLE, else the file that LUMORA_CABLE_FILE names, else one
// connected pair.
Description readDescription();

} // namespace cable

#endif
