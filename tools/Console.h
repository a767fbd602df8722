#ifndef LUMORA_TOOLS_CONSOLE_H
#define LUMORA_TOOLS_CONSOLE_H

#include <QString>

// Both streams carry UTF-8; a console window is given UTF-16, so that its code page does not
// matter. Nothing is buffered. Any thread.

/// Writes data to standard output. False if its reader has gone, which is no failure; throws
/// Failure if it cannot be written for another reason.
bool print(const QString& text);

/// Writes a line for people to standard error.
void say(const QString& line);

/// Whether standard error is a terminal.
bool errorIsTerminal();

/// Writes `line` to the terminal in place of the one before it; an empty one clears it. Only if
/// errorIsTerminal().
void showInPlace(const QString& line);

#endif
