#ifndef LUMORA_QT_STRINGPIECES_H
#define LUMORA_QT_STRINGPIECES_H

#include <QString>
#include <QStringList>

/// The pieces of `text` between occurrences of `separator` (a QChar or a QString), case-sensitive,
/// empty pieces dropped. Qt moved the flag that says so from QString to the Qt namespace.
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
