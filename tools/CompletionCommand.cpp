#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Console.h"

// Takes commands and options from the program's own help.
static const char kBashScript[] = R"bash(# Completion of lumora-midi for bash.
_lumora_midi() {
    local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} command='' i
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            command=${COMP_WORDS[i]}
            break
        fi
    done
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$program" ${command:+"$command"} --help 2>/dev/null |
            sed -nE 's/^  (-h, )?(--[a-z-]+).*/\2/p')" -- "$word")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$program" --help 2>/dev/null |
            sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p')" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -o filenames -F _lumora_midi lumora-midi lumora-midi.exe
)bash";

void completionCommand(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("completion"),
                     QStringLiteral("Prints a bash completion script for commands, options and "
                                    "file names."));
    line.addExample(QStringLiteral("> ~/.lumora-midi"),
                    QStringLiteral("writes it to a file; \"source ~/.lumora-midi\" in ~/.bashrc "
                                   "loads it."));
    if (!line.parse(arguments))
        return;
    line.expectArguments(0, 0);
    print(QString::fromUtf8(kBashScript));
}
