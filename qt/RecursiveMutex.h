#ifndef LUMORA_QT_RECURSIVEMUTEX_H
#define LUMORA_QT_RECURSIVEMUTEX_H

/// \file
/// A mutex that its owner may lock again, under one name for every Qt: Qt 6 made it a class of its
/// own, before that it is a QMutex constructed so.

#include <QMutex>
#include <QMutexLocker>

#if QT_VERSION >= 0x060000

#include <QRecursiveMutex>

typedef QRecursiveMutex RecursiveMutex;
typedef QMutexLocker<QRecursiveMutex> RecursiveMutexLocker;
typedef QMutexLocker<QMutex> MutexLocker;

#else

/// A mutex that the thread which holds it may lock again, and unlocks as often.
class RecursiveMutex : public QMutex
{
public:
    /// Unlocked.
    RecursiveMutex() : QMutex(QMutex::Recursive) {}
};

typedef QMutexLocker RecursiveMutexLocker; ///< holds a RecursiveMutex for its own lifetime
typedef QMutexLocker MutexLocker;          ///< holds a QMutex for its own lifetime

#endif

#endif
