// The log that LUMORA_CABLE_LOG asks for: a line for each event, from any number of processes.

#pragma once

#include <windows.h>

namespace cable {

// Appends "MS DIRECTION POSITION TEXT" and flushes it; does nothing unless a log is asked for. Any
// thread.
void logEvent(const char* direction, unsigned position, const char* format, ...)
    __attribute__((format(gnu_printf, 3, 4)));

// One sentence on the standard error stream.
void complain(const char* sentence);

} // namespace cable
