// Linked into programs built with ThreadSanitizer only. The sanitizer cannot see the locking inside
// Debian's uninstrumented Qt, so QMutex's out-of-line calls are wrapped here with the annotations
// that tell it when a mutex is taken and given back.

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

#include <QMutex>

namespace
{

/// The function of that name in Qt itself, behind the wrapper here.
template <typename Call>
Call real(const char* symbol)
{
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, symbol));
}

using MutexCall = void (*)(QMutex*);
using TryLockCall = bool (*)(QMutex*, int);

} // namespace

__attribute__((visibility("default"))) void QMutex::lock() noexcept
{
    static const auto call = real<MutexCall>("_ZN6QMutex4lockEv");
    __tsan_mutex_pre_lock(this, 0);
    call(this);
    __tsan_mutex_post_lock(this, 0, 0);
}

__attribute__((visibility("default"))) bool QMutex::tryLock(int timeout) noexcept
{
    static const auto call = real<TryLockCall>("_ZN6QMutex7tryLockEi");
    __tsan_mutex_pre_lock(this, __tsan_mutex_try_lock);
    const bool locked = call(this, timeout);
    __tsan_mutex_post_lock(this,
                           __tsan_mutex_try_lock | (locked ? 0 : __tsan_mutex_try_lock_failed), 0);
    return locked;
}

__attribute__((visibility("default"))) void QMutex::unlock() noexcept
{
    static const auto call = real<MutexCall>("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    call(this);
    __tsan_mutex_post_unlock(this, 0);
}
