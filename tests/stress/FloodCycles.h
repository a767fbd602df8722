#ifndef LUMORA_TESTS_STRESS_FLOODCYCLES_H
#define LUMORA_TESTS_STRESS_FLOODCYCLES_H

#include <algorithm>
#include <cstdlib>

/// How often a flooded port is opened and closed: as the environment's LUMORA_FLOOD_CYCLES says, or
/// as usual.
inline int floodCycles(int usual) noexcept
{
    constexpr int kFewest = 50; // more than it takes to warm up
    const char* const wanted = std::getenv("LUMORA_FLOOD_CYCLES");
    return wanted ? std::max(kFewest, static_cast<int>(std::strtol(wanted, nullptr, 10))) : usual;
}

#endif
