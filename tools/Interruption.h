#ifndef LUMORA_TOOLS_INTERRUPTION_H
#define LUMORA_TOOLS_INTERRUPTION_H

#include <QtGlobal>

// Ctrl-C asks the program to end in order: ports closed, identifiers stored. A second one ends it
// on the spot.

/// From now on Ctrl-C and the closing of the console are caught.
void catchInterruption();

/// What a first Ctrl-C is answered with on standard error; null for nothing.
void answerInterruption(const char* notice);

/// Whether the program was asked to end. Any thread.
bool interrupted();

/// Sleeps; false as soon as the program is asked to end.
bool sleepFor(qint64 milliseconds);

/// How often whoever waits for something looks at interrupted().
const int kInterruptionPollMs = 20;

#endif
