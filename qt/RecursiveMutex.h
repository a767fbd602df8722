#ifndef LUMORA_QT_RECURSIVEMUTEX_H
#define LUMORA_QT_RECURSIVEMUTEX_H

/// \file
/// One name for a recursive mutex in every Qt: a class in Qt 6, a constructor argument of QMutex
/// before.

#include <QMutex>
#include <QMutexLocker>

#if QT_VERSION >= 0x060000
#include <QRecursiveMutex>
#endif

/// This library's own names.
namespace lumora {

#if QT_VERSION >= 0x060000

typedef QRecursiveMutex RecursiveMutex;
typedef QMutexLocker<QRecursiveMutex> RecursiveMutexLocker;
typedef QMutexLocker<QMutex> MutexLocker;

#else

/// A mutex that its owner may lock again, and unlocks as often.
class RecursiveMutex : public QMutex
{
public:
    /// Starts unlocked.
    /// Thread-safe: yes. Blocks: no.
    RecursiveMutex() : QMutex(QMutex::Recursive) {}
};

typedef QMutexLocker RecursiveMutexLocker; ///< holds a RecursiveMutex while it lives
typedef QMutexLocker MutexLocker;          ///< holds a QMutex while it lives

#endif

} // namespace lumora

#endif
