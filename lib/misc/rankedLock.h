#ifndef TESSEL_LIB_MISC_RANKEDLOCK_H
#define TESSEL_LIB_MISC_RANKEDLOCK_H

#include <cstdint>

/* A recursive lock with a rank. Threads that take their locks in the order of rising ranks cannot deadlock: in debug
   builds a thread that takes a lock while it holds another one of the same or a higher rank ends the process
   with a message that names both. */
struct RankedLock;

/* A new lock, which nobody holds; the name is not copied. Exhausted memory ends the process. */
[[nodiscard]] RankedLock *RankedLock_Create(const char *name, uint32_t rank);

/* Null is ignored. Nobody may hold the lock or wait for it. */
void RankedLock_Free(RankedLock *lock);

/* Waits until no other thread holds the lock. A thread may take a lock again that it holds, and lets go of it as many
   times; locks may be let go in any order. */
void RankedLock_Acquire(RankedLock *lock);
void RankedLock_Release(RankedLock *lock);

/* Holds a lock until the end of the scope. */
class RankedLockHold {
 public:
   explicit RankedLockHold(RankedLock *lock) : lock_(lock)
   {
      RankedLock_Acquire(lock_);
   }

   ~RankedLockHold()
   {
      RankedLock_Release(lock_);
   }

   RankedLockHold(const RankedLockHold &) = delete;
   RankedLockHold &operator=(const RankedLockHold &) = delete;

 private:
   RankedLock *lock_;
};

#endif
