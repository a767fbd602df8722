#include "tools/Filter.h"

#include "tools/Failure.h"
#include "tools/Manufacturers.h"
#include "tools/MidiBytes.h"

#include <QRegularExpression>
#include <QStringList>

static const struct
{
    const char* name;
    Kind kind;
} kKinds[] = {
    {"note", Kind::Note},        {"pressure", Kind::Pressure}, {"cc", Kind::ControlChange},
    {"pc", Kind::ProgramChange}, {"pb", Kind::PitchBend},      {"sysex", Kind::SysEx},
};

static bool hasChannel(const QByteArray& message)
{
    return !message.isEmpty() && isChannelStatus(byteAt(message, 0));
}

Kind kindOf(const QByteArray& message)
{
    if (isSysEx(message))
        return Kind::SysEx;
    if (!hasChannel(message))
        return Kind::Other;
    switch (byteAt(message, 0) & 0xF0) {
    case 0x80:
    case 0x90:
        return Kind::Note;
    case 0xB0:
        return Kind::ControlChange;
    case 0xC0:
        return Kind::ProgramChange;
    case 0xE0:
        return Kind::PitchBend;
    default:
        return Kind::Pressure;
    }
}

void Filter::setChannels(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^([0-9]{1,2})(?:-([0-9]{1,2}))?$"));
    const QStringList ranges = text.split(QLatin1Char(','));
    for (const QString& range : ranges) {
        const QRegularExpressionMatch match = form.match(range);
        const int first = match.captured(1).toInt();
        const int last = match.captured(2).isEmpty() ? first : match.captured(2).toInt();
        if (first < 1 || last > kChannels || first > last)
            throw Failure{ExitStatus::WrongUsage,
                          QStringLiteral("--channel needs channels from 1 to 16, as in 1,2,10-16, "
                                         "not \"%1\".")
                              .arg(text)};
        for (int channel = first; channel <= last; ++channel)
            channels.insert(channel);
    }
}

void Filter::setKinds(const QString& text)
{
    const QStringList names = text.split(QLatin1Char(','));
    for (const QString& name : names) {
        bool known = false;
        for (const auto& entry : kKinds) {
            if (name == QLatin1String(entry.name)) {
                kinds.insert(static_cast<int>(entry.kind));
                known = true;
            }
        }
        if (!known)
            throw Failure{ExitStatus::WrongUsage,
                          QStringLiteral("--only needs note, pressure, cc, pc, pb or sysex, "
                                         "separated by commas, not \"%1\".")
                              .arg(text)};
    }
}

void Filter::setMaker(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^(00 ?[0-7][0-9A-Fa-f] ?[0-7][0-9A-Fa-f]|[0-7][0-9A-Fa-f])$"));
    if (text.trimmed().isEmpty())
        throw Failure{ExitStatus::WrongUsage,
                      QStringLiteral("--maker needs an identifier, as in 41 or \"00 20 29\", or a "
                                     "part of a name.")};
    if (form.match(text).hasMatch())
        makerId = QByteArray::fromHex(text.toLatin1());
    else
        makerName = text;
}

bool Filter::passes(const QByteArray& message) const
{
    if (!kinds.isEmpty() && !kinds.contains(static_cast<int>(kindOf(message))))
        return false;
    if (!channels.isEmpty() &&
        !(hasChannel(message) && channels.contains((message.at(0) & 0x0F) + 1)))
        return false;
    if (makerId.isEmpty() && makerName.isEmpty())
        return true;
    if (!isSysEx(message))
        return false;
    const QByteArray id = manufacturerOf(message);
    return makerName.isEmpty() ? id == makerId
                               : manufacturerName(id).contains(makerName, Qt::CaseInsensitive);
}
