// The log that LUMORA_CABLE_LOG asks for: a line for each event, from any number of processes.
#pragma once

#include <string>

namespace cable {

// Appends "MS DIRECTION POSITION TEXT" and flushes it; does nothing unless a log is asked for. Any
// thread.
void logEvent(const char* direction, unsigned position, const std::string& text);

// One sentence on the standard error stream.
void complain(const std::string& sentence);

} // namespace cable
