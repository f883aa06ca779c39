// The standard library's locks with the annotations that let clang's -Wthread-safety check what
// they guard. Nothing is added to their behaviour; a failure of a lock is the library's
// std::system_error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define KANDB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KANDB_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) KANDB_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY KANDB_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(mutex) KANDB_THREAD_ANNOTATION(guarded_by(mutex))
#define REQUIRES(...) KANDB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KANDB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KANDB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KANDB_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KANDB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) KANDB_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS KANDB_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace kandb {

class CAPABILITY("mutex") Mutex {
 public:
  void Lock() ACQUIRE() { mutex.lock(); }
  void Unlock() RELEASE() { mutex.unlock(); }

 private:
  friend class CondVar;
  std::mutex mutex;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* held_mutex) ACQUIRE(held_mutex) : mutex(held_mutex) { mutex->Lock(); }
  ~MutexLock() RELEASE() { mutex->Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex* mutex;
};

// Callers wait in a loop on their condition: a wake-up may be spurious.
class CondVar {
 public:
  void Wait(Mutex* mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex->mutex, std::adopt_lock);
    condition.wait(lock);
    lock.release();
  }
  void NotifyOne() { condition.notify_one(); }
  void NotifyAll() { condition.notify_all(); }

 private:
  std::condition_variable condition;
};

// A writer waits only for the reads in progress: readers that come later wait behind it. Otherwise
// overlapping reads could keep it waiting forever. Not recursive.
class CAPABILITY("shared_mutex") SharedMutex {
 public:
  void Lock() ACQUIRE() {
    std::lock_guard<std::mutex> turn(gate);
    writer_waits.store(true, std::memory_order_relaxed);
    mutex.lock();
    writer_waits.store(false, std::memory_order_relaxed);
  }
  void Unlock() RELEASE() { mutex.unlock(); }
  void LockShared() ACQUIRE_SHARED() {
    if (writer_waits.load(std::memory_order_relaxed)) {
      gate.lock();
      gate.unlock();
    }
    mutex.lock_shared();
  }
  void UnlockShared() RELEASE_GENERIC() { mutex.unlock_shared(); }

 private:
  std::mutex gate;  // held by a writer that waits
  std::atomic<bool> writer_waits = false;
  std::shared_mutex mutex;
};

class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex* held_mutex) ACQUIRE(held_mutex) : mutex(held_mutex) {
    mutex->Lock();
  }
  ~WriterLock() RELEASE() { mutex->Unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex* mutex;
};

class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex* held_mutex) ACQUIRE_SHARED(held_mutex) : mutex(held_mutex) {
    mutex->LockShared();
  }
  ~ReaderLock() RELEASE_GENERIC() { mutex->UnlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex* mutex;
};

}  // namespace kandb
