#include "tools/CommandLine.h"

#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Ports.h"

static const char kProgram[] = "lumora-midi";

CommandLine::CommandLine(const QString& name, const QString& description)
    : name(name), usage(QStringLiteral("[options]"))
{
    parser.setApplicationDescription(description);
    parser.addOption(
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Shows this text.")});
    addOption(
        QStringLiteral("organization"),
        QStringLiteral("Organization whose settings store keeps the identifiers (default Lumora)."),
        QStringLiteral("name"), QStringLiteral("Lumora"));
    addOption(QStringLiteral("application"),
              QStringLiteral(
                  "Application whose settings store keeps the identifiers (default Transport)."),
              QStringLiteral("name"), QStringLiteral("Transport"));
}

void CommandLine::addArgument(const QString& argument, const QString& description,
                              const QString& syntax)
{
    parser.addPositionalArgument(argument, description, syntax);
    usage += QLatin1Char(' ') + syntax;
}

void CommandLine::addPort(const QString& argument, bool output)
{
    addArgument(
        argument,
        QStringLiteral("The %1: its number, name or identifier.").arg(directionName(output)),
        argument);
}

void CommandLine::addOption(const QString& option, const QString& description)
{
    parser.addOption({option, description});
}

void CommandLine::addOption(const QString& option, const QString& description,
                            const QString& valueName, const QString& defaultValue)
{
    parser.addOption({option, description, valueName, defaultValue});
}

void CommandLine::stopAtFirstArgument()
{
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
}

[[noreturn]] static void refuse(const QString& message, const QString& command)
{
    const QString program =
        QLatin1String(kProgram) + (command.isEmpty() ? QString() : QLatin1Char(' ') + command);
    throw Failure{ExitStatus::WrongUsage,
                  QStringLiteral("%1 (\"%2 --help\" tells more.)").arg(message, program)};
}

bool CommandLine::parse(const QStringList& arguments)
{
    // The parser leaves out the first of them, the program's name.
    const bool ok = parser.parse(QStringList(QLatin1String(kProgram)) + arguments);
    if (ok && parser.isSet(QStringLiteral("help"))) {
        print(helpText());
        return false;
    }
    if (!ok)
        refuse(parser.errorText(), name);
    if (value("organization").isEmpty() || value("application").isEmpty())
        refuse(QStringLiteral("--organization and --application need a name that is not empty."),
               name);
    positional = parser.positionalArguments();
    return true;
}

void CommandLine::expectArguments(int least, int most) const
{
    if (positional.size() < least)
        refuse(QStringLiteral("An argument is missing: lumora-midi %1 %2").arg(name, usage), name);
    if (positional.size() > most)
        refuse(QStringLiteral("\"%1\" is one argument too many.").arg(positional.at(most)), name);
}

bool CommandLine::isSet(const char* option) const
{
    return parser.isSet(QLatin1String(option));
}

QString CommandLine::value(const char* option) const
{
    return parser.value(QLatin1String(option));
}

int CommandLine::number(const char* option, int least, int most) const
{
    bool ok = false;
    const int result = value(option).toInt(&ok);
    if (!ok || result < least || result > most)
        refuse(QStringLiteral("--%1 needs a whole number from %2 to %3, not \"%4\".")
                   .arg(QLatin1String(option))
                   .arg(least)
                   .arg(most)
                   .arg(value(option)),
               name);
    return result;
}

Store CommandLine::store() const
{
    return {value("organization"), value("application")};
}

QString CommandLine::helpText() const
{
    // The parser's own first line has the path of the program and not the command.
    const QString text = parser.helpText();
    const QString command = name.isEmpty() ? name : QLatin1Char(' ') + name;
    return QStringLiteral("Usage: %1%2 %3").arg(QLatin1String(kProgram), command, usage) +
           text.mid(text.indexOf(QLatin1Char('\n')));
}
