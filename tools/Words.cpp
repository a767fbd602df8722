#include "tools/Words.h"

#include "tools/Failure.h"
#include "tools/MidiBytes.h"

#include <QRegularExpression>

static const int kMostData = 0x7F;
static const int kMostBend = 0x3FFF;
static const int kAllSoundOff = 120;
static const int kAllNotesOff = 123;
static const int kUsualVelocity = 64; // of a keyboard that does not measure it

static const struct Word
{
    const char* name;
    int status;     // of the message, without the channel; 0 if there is none
    int numbers;    // how many follow …
    int mostNumber; // … and the largest one
    bool takesNote; // as the first number
    bool lastMayLack;
} kWords[] = {
    {"on", 0x90, 2, kMostData, true, true},   {"off", 0x80, 2, kMostData, true, true},
    {"pp", 0xA0, 2, kMostData, true, false},  {"cc", 0xB0, 2, kMostData, false, false},
    {"pc", 0xC0, 1, kMostData, false, false}, {"cp", 0xD0, 1, kMostData, false, false},
    {"pb", 0xE0, 1, kMostBend, false, false}, {"ch", 0, 1, kChannels, false, false},
    {"panic", 0, 0, 0, false, false},
};

// "CC" is hexadecimal; no other word is.
static const Word* wordNamed(const QString& text)
{
    for (const Word& word : kWords) {
        const QLatin1String name(word.name);
        if (text == name || (text.toLower() == name && name != QLatin1String("cc")))
            return &word;
    }
    return nullptr;
}

int noteNumber(const QString& text)
{
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (isNumber)
        return number >= 0 && number <= kMostData ? number : -1;
    static const QRegularExpression form(QStringLiteral("^([A-Ga-g])([#b]?)(-?[0-9])$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return -1;
    static const int steps[] = {9, 11, 0, 2, 4, 5, 7}; // of A to G above C
    const int letter = match.captured(1).toUpper().at(0).unicode() - u'A';
    const QString sign = match.captured(2);
    const int shift = sign.isEmpty() ? 0 : sign == QLatin1String("#") ? 1 : -1;
    const int note = (match.captured(3).toInt() + 1) * 12 + steps[letter] + shift;
    return note >= 0 && note <= kMostData ? note : -1;
}

[[noreturn]] static void refuse(const QString& message)
{
    throw Failure{ExitStatus::BadData, message};
}

namespace {

class WordParser
{
public:
    explicit WordParser(const QStringList& tokens) : tokens(tokens) {}

    QVector<QByteArray> parse()
    {
        QStringList hexadecimal;
        while (position < tokens.size()) {
            const Word* const word = wordNamed(tokens.at(position));
            if (!word) {
                hexadecimal.append(tokens.at(position++));
                continue;
            }
            messages += splitMessages(parseHex(hexadecimal));
            hexadecimal.clear();
            ++position;
            take(*word);
        }
        messages += splitMessages(parseHex(hexadecimal));
        return messages;
    }

private:
    void take(const Word& word)
    {
        QVector<int> numbers;
        for (int i = 0; i < word.numbers; ++i) {
            const bool mayLack = word.lastMayLack && i == word.numbers - 1;
            if (mayLack && !nextIsNumber())
                numbers.append(kUsualVelocity);
            else
                numbers.append(word.takesNote && i == 0 ? note(word) : number(word));
        }
        if (qstrcmp(word.name, "ch") == 0) {
            channel = numbers.first() - 1;
        } else if (qstrcmp(word.name, "panic") == 0) {
            for (int all = 0; all < kChannels; ++all) {
                append(0xB0 | all, {kAllNotesOff, 0});
                append(0xB0 | all, {kAllSoundOff, 0});
            }
        } else if (word.mostNumber == kMostBend) {
            append(word.status | channel, {numbers.first() & kMostData, numbers.first() >> 7});
        } else {
            append(word.status | channel, numbers);
        }
    }

    void append(int status, const QVector<int>& data)
    {
        QByteArray message(1, static_cast<char>(status));
        for (const int byte : data)
            message.append(static_cast<char>(byte));
        messages.append(message);
    }

    bool nextIsNumber() const
    {
        bool isNumber = false;
        if (position < tokens.size())
            tokens.at(position).toInt(&isNumber);
        return isNumber;
    }

    QString next(const Word& word, const char* what)
    {
        if (position == tokens.size())
            refuse(QStringLiteral("%1 is missing after \"%2\".")
                       .arg(QLatin1String(what), QLatin1String(word.name)));
        return tokens.at(position++);
    }

    int note(const Word& word)
    {
        const QString text = next(word, "A note");
        const int result = noteNumber(text);
        if (result < 0)
            refuse(QStringLiteral("\"%1\" after \"%2\" is not a note: 0 to 127, or C-1 to G9.")
                       .arg(text, QLatin1String(word.name)));
        return result;
    }

    int number(const Word& word)
    {
        const QString text = next(word, "A number");
        const int least = qstrcmp(word.name, "ch") == 0 ? 1 : 0;
        bool isNumber = false;
        const int result = text.toInt(&isNumber);
        if (!isNumber || result < least || result > word.mostNumber)
            refuse(QStringLiteral("\"%1\" after \"%2\" is not a number from %3 to %4.%5")
                       .arg(text, QLatin1String(word.name), QString::number(least),
                            QString::number(word.mostNumber),
                            qstrcmp(word.name, "cc") == 0
                                ? QStringLiteral(" (The byte CC is written in capital letters.)")
                                : QString()));
        return result;
    }

    const QStringList tokens;
    int position = 0;
    int channel = 0;
    QVector<QByteArray> messages;
};

} // namespace

QVector<QByteArray> parseMessages(const QStringList& texts)
{
    static const QRegularExpression blanks(QStringLiteral("\\s+"));
    const QString text = texts.join(QLatin1Char(' '));
    QStringList tokens = text.split(blanks);
    tokens.removeAll(QString());
    for (const QString& token : tokens) {
        if (wordNamed(token))
            return WordParser(tokens).parse();
    }
    return splitMessages(parseHex(texts)); // unsplit, so that offsets count its characters
}
