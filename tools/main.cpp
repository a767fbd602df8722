// lumora-midi: tests MIDI ports from the command line, through the exported interface of
// lumora_transport.

#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Failure.h"
#include "tools/Interruption.h"
#include "tools/Text.h"

#include <QCoreApplication>

#include <exception>
#include <new>

static const struct
{
    const char* name;
    const char* summary;
    void (*run)(const QStringList& arguments);
} kCommands[] = {
    {"list", "lists ports and their identifiers", &listCommand},
    {"monitor", "prints incoming messages", &monitorCommand},
    {"send", "sends messages or a .syx or .mid file to an output", &sendCommand},
    {"record", "writes incoming SysEx messages to a .syx file", &recordCommand},
    {"request", "asks an instrument for its identity or a dump", &requestCommand},
    {"check", "sends data to an output and compares what an input receives", &checkCommand},
    {"completion", "prints a bash completion script", &completionCommand},
};

static QString commandList()
{
    QString text = QStringLiteral("Commands:");
    for (const auto& command : kCommands)
        text += QStringLiteral("\n  %1  %2")
                    .arg(QLatin1String(command.name), -10)
                    .arg(QLatin1String(command.summary));
    return text;
}

static void runProgram(const QStringList& arguments)
{
    CommandLine line(QString(),
                     QStringLiteral("Lists MIDI ports; sends, receives and checks messages."));
    line.addExample(QStringLiteral("list"), QStringLiteral("lists the ports."));
    line.addExample(QStringLiteral("monitor 1"), QStringLiteral("prints what arrives at input 1."));
    line.addExample(QStringLiteral("send 1 on C4 100"), QStringLiteral("plays middle C."));
    line.addExample(QStringLiteral("request 1 1 identity"),
                    QStringLiteral("asks the instrument what it is."));
    for (const auto& command : kCommands)
        line.addCommand(QLatin1String(command.name), QLatin1String(command.summary));
    line.addArgument(QStringLiteral("COMMAND"), QStringLiteral("What to do."),
                     QStringLiteral("COMMAND …"));
    line.addOption(QStringLiteral("version"), QStringLiteral("Shows the program's version."));
    line.addNote(QStringLiteral("\"lumora-midi COMMAND --help\" describes a command. A PORT is an "
                                "identifier, a number, a name, or a unique part of a name."));
    line.addNote(QStringLiteral("Exit status: 0 done, 1 failed, 2 wrong usage, 3 port not found, 4 "
                                "port would not open, 5 bad data."));
    line.stopAtFirstArgument();
    if (!line.parse(arguments))
        return;
    if (line.isSet("version")) {
        print(QStringLiteral("lumora-midi %1\n").arg(QLatin1String(LUMORA_VERSION)));
        return;
    }
    if (line.arguments().isEmpty())
        throw Failure{ExitStatus::WrongUsage, QStringLiteral("No command given. ") + commandList()};

    const QString name = line.arguments().first();
    for (const auto& command : kCommands) {
        if (name != QLatin1String(command.name))
            continue;
        // The store options may also come before the command.
        QStringList rest = line.arguments().mid(1);
        rest.prepend(QLatin1String("--application=") + line.store().application);
        rest.prepend(QLatin1String("--organization=") + line.store().organization);
        return command.run(rest);
    }
    throw Failure{ExitStatus::WrongUsage,
                  QStringLiteral("There is no command \"%1\". ").arg(name) + commandList()};
}

// The program reports failures itself.
static void ignoreQtMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(&ignoreQtMessage);
    catchInterruption();
    try {
        runProgram(QCoreApplication::arguments().mid(1));
    } catch (const Failure& failure) {
        say(QLatin1String("lumora-midi: ") + failure.message);
        return static_cast<int>(failure.status);
    } catch (const std::bad_alloc&) {
        say(QStringLiteral("lumora-midi: Out of memory."));
        return static_cast<int>(ExitStatus::Failed);
    } catch (const std::exception& error) {
        say(QLatin1String("lumora-midi: ") + sentence(QString::fromLocal8Bit(error.what())));
        return static_cast<int>(ExitStatus::Failed);
    }
    return static_cast<int>(ExitStatus::Done);
}
