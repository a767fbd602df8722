// What the public headers name of Qt, Windows and the standard library, as far as it shapes them:
// the sizes are those of 64-bit Qt 5, and QObject has Qt 5's virtual functions in Qt's order. For a
// check that reads clang's layouts for Microsoft's C++ ABI, whose own headers are not here.
#ifndef LUMORA_TESTS_CHECK_MSVC_STUBS_H
#define LUMORA_TESTS_CHECK_MSVC_STUBS_H

#define offsetof(type, member) __builtin_offsetof(type, member)
#define CALLBACK __stdcall

typedef unsigned int UINT;
typedef unsigned long DWORD;
typedef unsigned long long DWORD_PTR;
typedef wchar_t WCHAR;
typedef struct HMIDIIN__* HMIDIIN;
typedef struct HMIDIOUT__* HMIDIOUT;

struct GUID
{
    unsigned long Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
};

typedef unsigned int uint;

struct QMetaObject;
class QEvent;
class QTimerEvent;
class QChildEvent;
class QMetaMethod;
class QByteArray
{
    void* d_;
};
class QString
{
    void* d_;
};
class QUuid
{
    GUID id;
};
template <class Key, class Value>
class QMap
{
    void* d_;
};
class QMutex
{
public:
    enum RecursionMode { NonRecursive, Recursive };
    explicit QMutex(RecursionMode);

private:
    void* d_;
};
class QMutexLocker
{
    void* d_;
};

class QObject
{
public:
    virtual const QMetaObject* metaObject() const;
    virtual void* qt_metacast(const char*);
    virtual int qt_metacall(int, int, void**);
    QObject(QObject* parent = nullptr);
    virtual ~QObject();
    virtual bool event(QEvent*);
    virtual bool eventFilter(QObject*, QEvent*);

protected:
    virtual void timerEvent(QTimerEvent*);
    virtual void childEvent(QChildEvent*);
    virtual void customEvent(QEvent*);
    virtual void connectNotify(const QMetaMethod&);
    virtual void disconnectNotify(const QMetaMethod&);

private:
    void* d_;
};

namespace std {
template <class T>
struct atomic
{
    T value;
};
} // namespace std

#endif
