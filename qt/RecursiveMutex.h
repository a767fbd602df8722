#ifndef LUMORA_QT_RECURSIVEMUTEX_H
#define LUMORA_QT_RECURSIVEMUTEX_H

/// \file
/// A mutex that its owner may lock again, under one name for every Qt: Qt 6 has a class for it,
/// earlier versions have a constructor argument of QMutex.

#include <QMutex>
#include <QMutexLocker>

#if QT_VERSION >= 0x060000
#include <QRecursiveMutex>
#endif

/// Names of this library's own that its headers need.
namespace lumora {

#if QT_VERSION >= 0x060000

typedef QRecursiveMutex RecursiveMutex;
typedef QMutexLocker<QRecursiveMutex> RecursiveMutexLocker;
typedef QMutexLocker<QMutex> MutexLocker;

#else

/// A mutex that the thread which holds it may lock again. It unlocks it as often.
class RecursiveMutex : public QMutex
{
public:
    /// Unlocked.
    RecursiveMutex() : QMutex(QMutex::Recursive) {}
};

typedef QMutexLocker RecursiveMutexLocker; ///< holds a RecursiveMutex for its own lifetime
typedef QMutexLocker MutexLocker;          ///< holds a QMutex for its own lifetime

#endif

} // namespace lumora

#endif
