#ifndef LUMORA_TOOLS_MESSAGESOURCE_H
#define LUMORA_TOOLS_MESSAGESOURCE_H

#include "tools/CommandLine.h"

/// Declares the option with which messagesOf() passes over padding.
void addLenientOption(CommandLine& line);

/// What the user wants to send: bytes and words, the name of a .syx or .mid file, or "-" for
/// standard input, which may hold any of these. Tells what --lenient passed over. Throws Failure if
/// there is no message, or anything is wrong with one: all or nothing.
QVector<QByteArray> messagesOf(const QStringList& texts, const CommandLine& line);

/// The messages of a file, "-" for standard input.
QVector<QByteArray> messagesOfFile(const QString& name, const CommandLine& line);

#endif
