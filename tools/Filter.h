#ifndef LUMORA_TOOLS_FILTER_H
#define LUMORA_TOOLS_FILTER_H

#include <QByteArray>
#include <QSet>
#include <QString>

/// What a message is, by its status byte.
enum class Kind { Note, Pressure, ControlChange, ProgramChange, PitchBend, SysEx, Other };

Kind kindOf(const QByteArray& message);

/// Chooses among received messages. A message passes if every demand accepts it; at first there is
/// none. A channel is asked of channel messages, a maker of SysEx: others do not pass. The three
/// that set a demand throw Failure with ExitStatus::WrongUsage.
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
    QSet<int> channels; // from 1; empty for no demand
    QSet<int> kinds;    // as numbers; empty for no demand
    QByteArray makerId; // empty for no demand
    QString makerName;  // likewise
};

#endif
