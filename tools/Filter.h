#ifndef LUMORA_TOOLS_FILTER_H
#define LUMORA_TOOLS_FILTER_H

#include <QByteArray>
#include <QSet>
#include <QString>

/// The kind of a message, by its status byte.
enum class Kind { Note, Pressure, ControlChange, ProgramChange, PitchBend, SysEx, Other };

Kind kindOf(const QByteArray& message);

/// Selects received messages. A message passes if it meets every condition; at first there is none.
/// Only channel messages meet a channel condition, and only SysEx a maker condition. The setters
/// throw Failure with ExitStatus::WrongUsage.
class Filter
{
public:
    /// "1", "1,2,10", "1-4,16"
    void setChannels(const QString& text);

    /// "note,cc,sysex"; also "pressure", "pc" and "pb"
    void setKinds(const QString& text);

    /// An identifier in hexadecimal, "41" or "00 20 29", or a part of a name, in any case.
    void setMaker(const QString& text);

    bool passes(const QByteArray& message) const;

private:
    // Empty: no condition.
    QSet<int> channels; // from 1
    QSet<int> kinds;    // as numbers
    QByteArray makerId;
    QString makerName;
};

#endif
