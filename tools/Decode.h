#ifndef LUMORA_TOOLS_DECODE_H
#define LUMORA_TOOLS_DECODE_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// One received message as text and as JSON. A channel message may have padding at its end.

/// `message` without padding.
QByteArray trimmed(const QByteArray& message);

/// "Note On ch 1 C4 velocity 100"
QString toText(const QByteArray& padded);

/// {"type": "note_on", "channel": 1, "note": 60, "name": "C4", "velocity": 100, "bytes": "90 3C
/// 64"}
QJsonObject toJson(const QByteArray& padded);

/// The contents of an identity reply: "Device 10: maker 41 (Roland), family 772, model 2, version
/// 00 01 00 00"; empty if `message` is not one.
QString identityText(const QByteArray& message);

/// Middle C, note 60, is "C4".
QString noteName(int note);

/// "Volume" for controller 7; empty if the controller has no name.
QString controllerName(int controller);

#endif
