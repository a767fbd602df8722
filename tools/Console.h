#ifndef LUMORA_TOOLS_CONSOLE_H
#define LUMORA_TOOLS_CONSOLE_H

#include <QString>

// Both streams carry UTF-8; a console window is given UTF-16, so that its code page does not
// matter. Nothing is buffered. Any thread.

enum class Colour { None, Green, Yellow, Magenta, Cyan };

/// Writes data to standard output; coloured only on a terminal, and not if NO_COLOR is set. False
/// if its reader has gone, which is no failure; throws Failure if it cannot be written for another
/// reason.
bool print(const QString& text, Colour colour = Colour::None);

/// The columns for text on standard output; 80 if that is no terminal.
int outputWidth();

/// Writes a line for people to standard error.
void say(const QString& line);

/// Whether standard error is a terminal.
bool errorIsTerminal();

/// The columns for text on standard error, if that is a terminal.
int errorWidth();

/// Writes `line` to the terminal in place of the one before it; an empty one clears it. Only if
/// errorIsTerminal().
void showInPlace(const QString& line);

/// Clears the line that showInPlace() wrote, for the program ends now: nothing can be written to
/// standard error any more, and who tries waits for ever.
void leaveTerminal();

#endif
