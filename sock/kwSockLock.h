// Locks of the socket module with clang's thread-safety annotations: clang
// (-Wthread-safety) checks at compile time that every field marked
// GUARDED_BY is touched only with its mutex held and that every function
// marked REQUIRES is called with it.  Under other compilers the macros are
// empty.  std::mutex carries no annotation, hence the thin wrapper.
#pragma once

#include <mutex>

#if defined(__clang__)
#define KWSOCK_TSA(x) __attribute__((x))
#else
#define KWSOCK_TSA(x)
#endif

#define CAPABILITY(x) KWSOCK_TSA(capability(x))
#define SCOPED_CAPABILITY KWSOCK_TSA(scoped_lockable)
#define GUARDED_BY(x) KWSOCK_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) KWSOCK_TSA(pt_guarded_by(x))
#define REQUIRES(...) KWSOCK_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KWSOCK_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KWSOCK_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KWSOCK_TSA(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) KWSOCK_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KWSOCK_TSA(no_thread_safety_analysis)

namespace kwz::sock {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { m_.lock(); }
    void unlock() RELEASE() { m_.unlock(); }
    // For condition waits, which need the std::mutex itself.
    std::mutex& native() { return m_; }

private:
    std::mutex m_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& m) ACQUIRE(m) : m_(m) { m_.lock(); }
    ~MutexLock() RELEASE() { m_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_;
};

}  // namespace kwz::sock
