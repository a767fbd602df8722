#ifndef LUMORA_TOOLS_MESSAGESOURCE_H
#define LUMORA_TOOLS_MESSAGESOURCE_H

#include "tools/CommandLine.h"

/// Declares the option that makes messagesOf() skip padding.
void addLenientOption(CommandLine& line);

/// The messages that the user wants to send: bytes and words, the name of a .syx or .mid file, or
/// "-" for standard input, which may contain either. Reports what --lenient skipped. Throws Failure
/// if there is no message or any is wrong.
QVector<QByteArray> messagesOf(const QStringList& texts, const CommandLine& line);

/// The messages of a file, "-" for standard input.
QVector<QByteArray> messagesOfFile(const QString& name, const CommandLine& line);

#endif
