#ifndef LUMORA_TOOLS_COMMANDLINE_H
#define LUMORA_TOOLS_COMMANDLINE_H

#include "tools/Session.h"

#include <QCommandLineParser>
#include <QStringList>
#include <QVector>

/// The options and arguments of one command: declared, parsed, asked. Whatever is wrong with them
/// is a Failure with ExitStatus::WrongUsage.
class CommandLine
{
public:
    /// `name` is the command's name, empty for the program itself.
    CommandLine(const QString& name, const QString& description);

    /// For the help: what follows the command's name, and what it does.
    void addExample(const QString& arguments, const QString& effect);

    /// Arguments in order; the last may repeat. `syntax` stands in the usage line, "PORT" or
    /// "[BYTES…]".
    void addArgument(const QString& argument, const QString& text, const QString& syntax);

    /// One that names a port.
    void addPort(const QString& argument, bool output);

    void addOption(const QString& option, const QString& text);
    void addOption(const QString& option, const QString& text, const QString& valueName,
                   const QString& defaultValue = QString());

    /// What follows the first argument is not looked at: it belongs to a command.
    void stopAtFirstArgument();

    /// For the help of the program itself: a command, and a paragraph at the end.
    void addCommand(const QString& command, const QString& effect);
    void addNote(const QString& text);

    /// False if only help was asked for, which is then printed.
    bool parse(const QStringList& arguments);

    const QStringList& arguments() const { return positional; }
    void expectArguments(int least, int most) const;
    bool isSet(const char* option) const;
    QString value(const char* option) const;

    /// An option that takes a whole number from `least` to `most`.
    int number(const char* option, int least, int most) const;

    /// What --organization and --application name.
    Store store() const;

private:
    struct HelpLine
    {
        QString term;
        QString description;
    };

    QString helpText(int width) const;

    const QString name;
    const QString description;
    QString usage;
    QStringList notes;
    QVector<HelpLine> exampleHelp;
    QVector<HelpLine> commandHelp;
    QVector<HelpLine> argumentHelp;
    QVector<HelpLine> optionHelp;
    QCommandLineParser parser;
    QStringList positional;
};

#endif
