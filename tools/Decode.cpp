#include "tools/Decode.h"

#include "tools/Manufacturers.h"
#include "tools/MidiBytes.h"
#include "tools/Text.h"

static const int kPitchBendCentre = 0x2000;

// Bytes of a SysEx message that the text shows.
static const int kFirstBytes = 12;

QByteArray trimmed(const QByteArray& message)
{
    const int length = message.isEmpty() ? 0 : messageLength(byteAt(message, 0));
    return length > 0 ? message.left(length) : message;
}

QString noteName(int note)
{
    static const char* const names[] = {"C",  "C#", "D",  "D#", "E",  "F",
                                        "F#", "G",  "G#", "A",  "A#", "B"};
    return QLatin1String(names[note % 12]) + QString::number(note / 12 - 1);
}

QString controllerName(int controller)
{
    static const struct
    {
        int number;
        const char* name;
    } names[] = {
        {0, "Bank Select"},
        {1, "Modulation"},
        {2, "Breath"},
        {4, "Foot"},
        {5, "Portamento Time"},
        {6, "Data Entry"},
        {7, "Volume"},
        {8, "Balance"},
        {10, "Pan"},
        {11, "Expression"},
        {12, "Effect Control 1"},
        {13, "Effect Control 2"},
        {32, "Bank Select LSB"},
        {33, "Modulation LSB"},
        {34, "Breath LSB"},
        {36, "Foot LSB"},
        {37, "Portamento Time LSB"},
        {38, "Data Entry LSB"},
        {39, "Volume LSB"},
        {40, "Balance LSB"},
        {42, "Pan LSB"},
        {43, "Expression LSB"},
        {64, "Sustain"},
        {65, "Portamento"},
        {66, "Sostenuto"},
        {67, "Soft Pedal"},
        {68, "Legato"},
        {69, "Hold 2"},
        {70, "Sound Variation"},
        {71, "Resonance"},
        {72, "Release Time"},
        {73, "Attack Time"},
        {74, "Brightness"},
        {75, "Decay Time"},
        {76, "Vibrato Rate"},
        {77, "Vibrato Depth"},
        {78, "Vibrato Delay"},
        {84, "Portamento Control"},
        {91, "Reverb"},
        {92, "Tremolo"},
        {93, "Chorus"},
        {94, "Detune"},
        {95, "Phaser"},
        {96, "Data Increment"},
        {97, "Data Decrement"},
        {98, "NRPN LSB"},
        {99, "NRPN MSB"},
        {100, "RPN LSB"},
        {101, "RPN MSB"},
        {120, "All Sound Off"},
        {121, "Reset All Controllers"},
        {122, "Local Control"},
        {123, "All Notes Off"},
        {124, "Omni Off"},
        {125, "Omni On"},
        {126, "Mono"},
        {127, "Poly"},
    };
    for (const auto& entry : names) {
        if (entry.number == controller)
            return QLatin1String(entry.name);
    }
    return QString();
}

// "manufacturer 41 (Roland)"
static QString manufacturerText(const QByteArray& sysEx)
{
    const QByteArray id = manufacturerOf(sysEx);
    if (id.isEmpty())
        return QStringLiteral("no manufacturer");
    const QString name = manufacturerName(id);
    return QLatin1String("manufacturer ") + hex(id) +
           (name.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(name));
}

static QString sysExText(const QByteArray& message)
{
    QString text = QStringLiteral("SysEx %1, %2, %3")
                       .arg(counted(message.size(), "byte"), manufacturerText(message),
                            hex(message.left(kFirstBytes)));
    if (message.size() > kFirstBytes)
        text += QStringLiteral(" …");
    return text;
}

// Whole ones only: a truncated message is shown as bytes.
static bool isWholeChannelMessage(const QByteArray& message)
{
    return !message.isEmpty() && isChannelStatus(byteAt(message, 0)) &&
           message.size() == messageLength(byteAt(message, 0));
}

static int pitchBend(const QByteArray& message)
{
    return (byteAt(message, 1) | byteAt(message, 2) << 7) - kPitchBendCentre;
}

static QString channelText(const QByteArray& message)
{
    const int first = byteAt(message, 1);
    const int second = message.size() > 2 ? byteAt(message, 2) : 0;
    const QString channel = QString::number((byteAt(message, 0) & 0x0F) + 1);
    switch (byteAt(message, 0) & 0xF0) {
    case 0x80:
        return QStringLiteral("Note Off ch %1 %2 velocity %3")
            .arg(channel, noteName(first))
            .arg(second);
    case 0x90:
        return QStringLiteral("Note On ch %1 %2 velocity %3")
            .arg(channel, noteName(first))
            .arg(second);
    case 0xA0:
        return QStringLiteral("Key Pressure ch %1 %2 pressure %3")
            .arg(channel, noteName(first))
            .arg(second);
    case 0xB0: {
        const QString name = controllerName(first);
        const QString controller =
            QString::number(first) + (name.isEmpty() ? name : QLatin1Char(' ') + name);
        return QStringLiteral("Control Change ch %1 %2 value %3")
            .arg(channel, controller)
            .arg(second);
    }
    case 0xC0:
        return QStringLiteral("Program Change ch %1 program %2").arg(channel).arg(first);
    case 0xD0:
        return QStringLiteral("Channel Pressure ch %1 pressure %2").arg(channel).arg(first);
    default:
        return QStringLiteral("Pitch Bend ch %1 value %2").arg(channel).arg(pitchBend(message));
    }
}

QString toText(const QByteArray& padded)
{
    const QByteArray message = trimmed(padded);
    if (isWholeChannelMessage(message))
        return channelText(message);
    if (isSysEx(message))
        return sysExText(message);
    return QLatin1String("Bytes ") + hex(message);
}

static void addNote(QJsonObject* json, const char* type, int note, const char* valueName, int value)
{
    json->insert(QStringLiteral("type"), QLatin1String(type));
    json->insert(QStringLiteral("note"), note);
    json->insert(QStringLiteral("name"), noteName(note));
    json->insert(QLatin1String(valueName), value);
}

static void addValue(QJsonObject* json, const char* type, const char* valueName, qint64 value)
{
    json->insert(QStringLiteral("type"), QLatin1String(type));
    json->insert(QLatin1String(valueName), value);
}

static void addChannelMessage(QJsonObject* json, const QByteArray& message)
{
    const int first = byteAt(message, 1);
    const int second = message.size() > 2 ? byteAt(message, 2) : 0;
    json->insert(QStringLiteral("channel"), (byteAt(message, 0) & 0x0F) + 1);
    switch (byteAt(message, 0) & 0xF0) {
    case 0x80:
        return addNote(json, "note_off", first, "velocity", second);
    case 0x90:
        return addNote(json, "note_on", first, "velocity", second);
    case 0xA0:
        return addNote(json, "key_pressure", first, "pressure", second);
    case 0xB0:
        addValue(json, "control_change", "controller", first);
        if (const QString name = controllerName(first); !name.isEmpty())
            json->insert(QStringLiteral("name"), name);
        json->insert(QStringLiteral("value"), second);
        return;
    case 0xC0:
        return addValue(json, "program_change", "program", first);
    case 0xD0:
        return addValue(json, "channel_pressure", "pressure", first);
    default:
        return addValue(json, "pitch_bend", "value", pitchBend(message));
    }
}

QJsonObject toJson(const QByteArray& padded)
{
    const QByteArray message = trimmed(padded);
    QJsonObject json;
    if (isWholeChannelMessage(message)) {
        addChannelMessage(&json, message);
    } else if (isSysEx(message)) {
        addValue(&json, "sysex", "length", message.size());
        const QByteArray id = manufacturerOf(message);
        json.insert(QStringLiteral("manufacturer"), hex(id));
        if (const QString name = manufacturerName(id); !name.isEmpty())
            json.insert(QStringLiteral("manufacturer_name"), name);
    } else {
        addValue(&json, "bytes", "length", message.size());
    }
    json.insert(QStringLiteral("bytes"), hex(message));
    return json;
}

QString identityText(const QByteArray& message)
{
    // F0 7E, the device, 06 02, the maker of 1 or 3 bytes, and four fields.
    const int makerAt = 5;
    const int fields = 2 + 2 + 4;
    if (!isWholeSysEx(message) || message.size() <= makerAt || byteAt(message, 1) != 0x7E ||
        byteAt(message, 3) != 0x06 || byteAt(message, 4) != 0x02)
        return QString();
    const QByteArray maker = message.mid(makerAt, message.at(makerAt) == 0 ? 3 : 1);
    const QByteArray rest = message.mid(makerAt + maker.size());
    if (rest.size() != fields + 1)
        return QString();
    const auto number = [&](int at) { return byteAt(rest, at) | byteAt(rest, at + 1) << 7; };
    const QString name = manufacturerName(maker);
    const int device = byteAt(message, 2);
    return QStringLiteral("Device %1: maker %2, family %3, model %4, version %5")
        .arg(device == 0x7F ? QStringLiteral("7F (any)") : hex(message.mid(2, 1)),
             hex(maker) + (name.isEmpty() ? name : QStringLiteral(" (%1)").arg(name)))
        .arg(number(0))
        .arg(number(2))
        .arg(hex(rest.mid(4, 4)));
}
