#ifndef LUMORA_TOOLS_DECODE_H
#define LUMORA_TOOLS_DECODE_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// One received message for people and for programs. A channel message may carry padding behind its
// own length.

/// `message` without padding.
QByteArray trimmed(const QByteArray& message);

/// "Note On ch 1 C4 velocity 100"
QString toText(const QByteArray& padded);

/// {"type": "note_on", "channel": 1, "note": 60, "name": "C4", "velocity": 100, "bytes": "90 3C
/// 64"}
QJsonObject toJson(const QByteArray& padded);

/// What an identity reply tells: "Device 10: maker 41 (Roland), family 772, model 2, version 00 01
/// 00 00"; empty if `message` is none.
QString identityText(const QByteArray& message);

/// Middle C, note 60, is "C4".
QString noteName(int note);

/// "Volume" for controller 7; empty if the controller has no name of its own.
QString controllerName(int controller);

#endif
