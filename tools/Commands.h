#ifndef LUMORA_TOOLS_COMMANDS_H
#define LUMORA_TOOLS_COMMANDS_H

#include <QStringList>

// `arguments` are those after the command's name. All throw Failure.

void listCommand(const QStringList& arguments);
void monitorCommand(const QStringList& arguments);
void sendCommand(const QStringList& arguments);
void recordCommand(const QStringList& arguments);
void requestCommand(const QStringList& arguments);
void checkCommand(const QStringList& arguments);
void completionCommand(const QStringList& arguments);

#endif
