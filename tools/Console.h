#ifndef LUMORA_TOOLS_CONSOLE_H
#define LUMORA_TOOLS_CONSOLE_H

#include <QString>
#include <chrono>

// Both streams carry UTF-8; a console window gets UTF-16, whatever its code page. Nothing is
// buffered. Any thread.

enum class Colour { None, Green, Yellow, Magenta, Cyan };

/// Writes to standard output, with colour only on a terminal and unless NO_COLOR is set. False if
/// the reader has gone, which is not a failure; throws Failure for any other error.
bool print(const QString& text, Colour colour = Colour::None);

/// The columns for text on standard output; 80 if that is not a terminal.
int outputWidth();

/// Writes a line to standard error.
void say(const QString& line);

/// Whether standard error is a terminal.
bool errorIsTerminal();

/// The columns for text on standard error, if that is a terminal.
int errorWidth();

/// Replaces the line that it wrote to the terminal before; an empty one clears it. Only if
/// errorIsTerminal().
void showInPlace(const QString& line);

/// How long a line that is shown in place stays as it is.
const std::chrono::milliseconds kRedraw(200);

/// Clears the line that showInPlace() wrote, just before the program ends: later writes to standard
/// error block for ever.
void leaveTerminal();

#endif
