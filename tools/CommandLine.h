#ifndef LUMORA_TOOLS_COMMANDLINE_H
#define LUMORA_TOOLS_COMMANDLINE_H

#include "tools/Session.h"

#include <QCommandLineParser>
#include <QStringList>
#include <QVector>

/// Declares, parses and returns the options and arguments of one command. Throws Failure with
/// ExitStatus::WrongUsage if they are wrong.
class CommandLine
{
public:
    /// `name` is the command's name, empty for the program itself.
    CommandLine(const QString& name, const QString& description);

    /// For the help: what follows the command's name, and its effect.
    void addExample(const QString& arguments, const QString& effect);

    /// Arguments in order; the last may repeat. `syntax` is for the usage line: "PORT", "[BYTES…]".
    void addArgument(const QString& argument, const QString& text, const QString& syntax);

    /// An argument that names a port.
    void addPort(const QString& argument, bool output);

    void addOption(const QString& option, const QString& text);
    void addOption(const QString& option, const QString& text, const QString& valueName,
                   const QString& defaultValue = QString());

    /// Leaves what follows the first argument to a command.
    void stopAtFirstArgument();

    /// For the program's own help: a command, and a paragraph at the end.
    void addCommand(const QString& command, const QString& effect);
    void addNote(const QString& text);

    /// False if the arguments ask for help, which it prints.
    bool parse(const QStringList& arguments);

    const QStringList& arguments() const { return positional; }
    void expectArguments(int least, int most) const;
    bool isSet(const char* option) const;
    QString value(const char* option) const;

    /// The value of an option that takes a whole number from `least` to `most`.
    int number(const char* option, int least, int most) const;

    /// The store that --organization and --application name.
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
