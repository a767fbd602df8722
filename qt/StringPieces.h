#ifndef LUMORA_QT_STRINGPIECES_H
#define LUMORA_QT_STRINGPIECES_H

#include <QString>
#include <QStringList>

/// Splits `text` at `separator` (a QChar or a QString), case-sensitively, and drops empty pieces.
/// Qt moved the flag for that from QString to the Qt namespace.
template <class Separator>
QStringList nonEmptyPieces(const QString& text, const Separator& separator)
{
#if QT_VERSION >= 0x050e00
    return text.split(separator, Qt::SkipEmptyParts);
#else
    return text.split(separator, QString::SkipEmptyParts);
#endif
}

#endif
