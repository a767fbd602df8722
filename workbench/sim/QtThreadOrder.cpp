// Tells ThreadSanitizer what the distribution's Qt, which is built without it, does to the order of
// threads: a QMutex orders its owners, and QThread::wait comes after all that the thread did.
// Without it every use of either would be reported as a race.
//
// The definitions here take the place of Qt's for the program's own calls and then call Qt's.
// Nothing is suppressed, and no order is claimed that Qt does not give. For builds with
// ThreadSanitizer only.

#include <QMutex>
#include <QThread>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <pthread.h>
#include <sanitizer/tsan_interface.h>

namespace {

// Qt's own function of that mangled name.
template <typename Function>
Function qtFunction(const char* name)
{
    void* const address = dlsym(RTLD_NEXT, name);
    if (!address)
        std::abort();
    return reinterpret_cast<Function>(address);
}

// Any QMutex may have been made recursive; the flag only permits it.
constexpr unsigned kMutexFlags = __tsan_mutex_linker_init | __tsan_mutex_write_reentrant;

// ---- The end of a QThread -----------------------------------------------------------------------
// QThread::wait returns while the thread is still on its way out, ordered by a mutex inside Qt that
// nobody sees. Here it also joins the thread, which is seen.

std::mutex threadsLock; // guards threads()

std::map<const void*, pthread_t>& threads() // not waited for yet, by QThread
{
    static std::map<const void*, pthread_t> map;
    return map;
}

bool isInQt(void* (*routine)(void*))
{
    Dl_info info;
    return dladdr(reinterpret_cast<void*>(routine), &info) != 0 && info.dli_fname &&
           std::strstr(info.dli_fname, "Qt5Core");
}

} // namespace

extern "C" int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*),
                                            void*);

// Qt hands its QThread to the routine that it starts, detached.
extern "C" int pthread_create(pthread_t* id, const pthread_attr_t* attributes,
                              void* (*routine)(void*), void* argument)
{
    if (!isInQt(routine))
        return __interceptor_pthread_create(id, attributes, routine, argument);
    pthread_attr_setdetachstate(const_cast<pthread_attr_t*>(attributes), PTHREAD_CREATE_JOINABLE);
    const std::lock_guard<std::mutex> guard(threadsLock);
    const int result = __interceptor_pthread_create(id, attributes, routine, argument);
    if (result == 0)
        threads()[argument] = *id;
    return result;
}

// The one that the library calls, of two.
bool QThread::wait(unsigned long time)
{
    using Wait = bool (*)(QThread*, unsigned long);
    static const Wait qtWait = qtFunction<Wait>("_ZN7QThread4waitEm");
    if (!qtWait(this, time))
        return false;
    std::unique_lock<std::mutex> guard(threadsLock);
    const auto ended = threads().extract(this);
    guard.unlock();
    if (ended) // else it was never started
        pthread_join(ended.mapped(), nullptr);
    return true;
}

void QMutex::lock() noexcept
{
    using Lock = void (*)(QMutex*);
    static const Lock lock = qtFunction<Lock>("_ZN6QMutex4lockEv");
    __tsan_mutex_pre_lock(this, kMutexFlags);
    lock(this);
    __tsan_mutex_post_lock(this, kMutexFlags, 1);
}

bool QMutex::tryLock(int timeout) noexcept
{
    using TryLock = bool (*)(QMutex*, int);
    static const TryLock tryLock = qtFunction<TryLock>("_ZN6QMutex7tryLockEi");
    constexpr unsigned flags = kMutexFlags | __tsan_mutex_try_lock;
    __tsan_mutex_pre_lock(this, flags);
    const bool locked = tryLock(this, timeout);
    __tsan_mutex_post_lock(this, locked ? flags : flags | __tsan_mutex_try_lock_failed, 1);
    return locked;
}

void QMutex::unlock() noexcept
{
    using Unlock = void (*)(QMutex*);
    static const Unlock unlock = qtFunction<Unlock>("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    unlock(this);
    __tsan_mutex_post_unlock(this, 0);
}
