#ifndef LUMORA_TOOLS_INTERRUPTION_H
#define LUMORA_TOOLS_INTERRUPTION_H

#include <QtGlobal>

// Ctrl-C asks the program to shut down: to close ports and store identifiers. A second one ends it
// at once.

/// Handles Ctrl-C and the closing of the console from now on.
void catchInterruption();

/// Sets what a first Ctrl-C prints to standard error; null for nothing.
void answerInterruption(const char* notice);

/// Whether the program was asked to end. Any thread.
bool interrupted();

/// Sleeps; returns false as soon as the program is asked to end.
bool sleepFor(qint64 milliseconds);

/// How often a wait checks interrupted().
const int kInterruptionPollMs = 20;

#endif
