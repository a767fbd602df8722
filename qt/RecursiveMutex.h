#ifndef LUMORA_QT_RECURSIVEMUTEX_H
#define LUMORA_QT_RECURSIVEMUTEX_H

#include <QMutex>
#include <QMutexLocker>

// A mutex that its owner may lock again, under one name for every Qt: Qt 6 made it a class of its
// own, before that it is a QMutex constructed so.

#if QT_VERSION >= 0x060000

#include <QRecursiveMutex>

typedef QRecursiveMutex RecursiveMutex;
typedef QMutexLocker<QRecursiveMutex> RecursiveMutexLocker;
typedef QMutexLocker<QMutex> MutexLocker;

#else

class RecursiveMutex : public QMutex
{
public:
    RecursiveMutex() : QMutex(QMutex::Recursive) {}
};

typedef QMutexLocker RecursiveMutexLocker;
typedef QMutexLocker MutexLocker;

#endif

#endif
