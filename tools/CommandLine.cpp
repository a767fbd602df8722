#include "tools/CommandLine.h"

#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Ports.h"
#include "tools/Text.h"

#include <algorithm>

static const char kProgram[] = "lumora-midi";

CommandLine::CommandLine(const QString& name, const QString& description)
    : name(name), description(description), usage(QStringLiteral("[options]"))
{}

void CommandLine::addExample(const QString& arguments, const QString& effect)
{
    const QString command = name.isEmpty() ? name : name + QLatin1Char(' ');
    exampleHelp.append(
        {QStringLiteral("%1 %2%3").arg(QLatin1String(kProgram), command, arguments), effect});
}

void CommandLine::addArgument(const QString& argument, const QString& text, const QString& syntax)
{
    argumentHelp.append({argument, text});
    usage += QLatin1Char(' ') + syntax;
}

void CommandLine::addCommand(const QString& command, const QString& effect)
{
    commandHelp.append({command, effect});
}

void CommandLine::addNote(const QString& text)
{
    notes.append(text);
}

void CommandLine::addPort(const QString& argument, bool output)
{
    addArgument(argument,
                QStringLiteral("The %1: number, name, part of a name, or identifier.")
                    .arg(directionName(output)),
                argument);
}

void CommandLine::addOption(const QString& option, const QString& text)
{
    optionHelp.append({QLatin1String("--") + option, text});
    parser.addOption({option, text});
}

void CommandLine::addOption(const QString& option, const QString& text, const QString& valueName,
                            const QString& defaultValue)
{
    optionHelp.append({QStringLiteral("--%1 %2").arg(option, valueName), text});
    parser.addOption({option, text, valueName, defaultValue});
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
                  QStringLiteral("%1 (See \"%2 --help\".)").arg(message, program)};
}

bool CommandLine::parse(const QStringList& arguments)
{
    // Last in the help: few users need the options of the store.
    parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QString()});
    optionHelp.append({QStringLiteral("-h, --help"), QStringLiteral("Shows this text.")});
    addOption(QStringLiteral("organization"),
              QStringLiteral("Organization whose settings store keeps the identifiers of ports "
                             "(default Lumora)."),
              QStringLiteral("NAME"), QStringLiteral("Lumora"));
    addOption(QStringLiteral("application"),
              QStringLiteral("Application whose settings store keeps them (default Transport)."),
              QStringLiteral("NAME"), QStringLiteral("Transport"));
    // The parser skips the first argument, the program's name.
    const bool ok = parser.parse(QStringList(QLatin1String(kProgram)) + arguments);
    if (ok && parser.isSet(QStringLiteral("help"))) {
        print(helpText(outputWidth()));
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

// Terms in one column, their descriptions in the next.
template <typename Lines>
static QString table(const char* title, const Lines& lines, int width)
{
    if (lines.isEmpty())
        return QString();
    const int frame = 2;  // blanks before each column
    const int least = 20; // columns for the description, even in a narrow terminal
    int widest = 0;
    for (const auto& line : lines)
        widest = std::max(widest, static_cast<int>(line.term.size()));
    const int indent = frame + widest + frame;
    QString text = QStringLiteral("\n%1:\n").arg(QLatin1String(title));
    for (const auto& line : lines) {
        const QString wrappedText =
            wrapped(line.description, std::max(width - indent, least), 0)
                .replace(QLatin1Char('\n'), QLatin1Char('\n') + QString(indent, QLatin1Char(' ')));
        text += QStringLiteral("  %1  %2\n").arg(line.term.leftJustified(widest), wrappedText);
    }
    return text;
}

// Example commands, each with its effect on the next line.
template <typename Lines>
static QString exampleText(const Lines& examples, int width)
{
    QString text = examples.isEmpty() ? QString() : QStringLiteral("\nExamples:\n");
    for (const auto& example : examples)
        text += QStringLiteral("  %1\n      %2\n")
                    .arg(example.term, wrapped(example.description, width - 6, 6));
    return text;
}

QString CommandLine::helpText(int width) const
{
    const QString command = name.isEmpty() ? name : QLatin1Char(' ') + name;
    QString text = QStringLiteral("Usage: %1%2 %3\n").arg(QLatin1String(kProgram), command, usage);
    text += exampleText(exampleHelp, width);
    text += QLatin1Char('\n') + wrapped(description, width, 0) + QLatin1Char('\n');
    text += table("Commands", commandHelp, width) + table("Arguments", argumentHelp, width) +
            table("Options", optionHelp, width);
    for (const QString& note : notes)
        text += QLatin1Char('\n') + wrapped(note, width, 0) + QLatin1Char('\n');
    return text;
}
