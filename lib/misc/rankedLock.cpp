#include "lib/misc/rankedLock.h"

#include "base/owned.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <pthread.h>

struct RankedLock {
   pthread_mutex_t mutex;
   const char *name;
   uint32_t rank;
   uint32_t depth;   /* How often its holder has it; the holder's alone, as is the next one. */
   RankedLock *next; /* Among the locks of its holder. */
};

namespace {

#ifdef NDEBUG
constexpr bool CHECKS_RANKS = false;
#else
constexpr bool CHECKS_RANKS = true;
#endif

/* The locks of this thread, the latest first. */
thread_local RankedLock *sHeld = nullptr;

bool RankedLockIsHeld(const RankedLock *lock)
{
   const RankedLock *held = sHeld;
   while (held != nullptr && held != lock) {
      held = held->next;
   }
   return held != nullptr;
}

void RankedLockCheck(const RankedLock *lock)
{
   if (RankedLockIsHeld(lock)) {
      return;
   }
   for (const RankedLock *held = sHeld; held != nullptr; held = held->next) {
      if (lock->rank <= held->rank) {
         Panic("%s: \"%s\" of rank 0x%X is taken while \"%s\" of rank 0x%X is held.\n", "RankedLock_Acquire",
               lock->name, lock->rank, held->name, held->rank);
      }
   }
}

void RankedLockForget(const RankedLock *lock)
{
   RankedLock **link = &sHeld;
   while (*link != lock) {
      link = &(*link)->next;
   }
   *link = lock->next;
}

} // namespace

RankedLock *RankedLock_Create(const char *name, uint32_t rank)
{
   auto *lock = static_cast<RankedLock *>(Util_SafeCalloc(1, sizeof(RankedLock)));
   pthread_mutexattr_t attributes;

   pthread_mutexattr_init(&attributes);
   pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
   pthread_mutex_init(&lock->mutex, &attributes);
   pthread_mutexattr_destroy(&attributes);
   lock->name = name;
   lock->rank = rank;
   return lock;
}

void RankedLock_Free(RankedLock *lock)
{
   if (lock != nullptr) {
      const Owned<RankedLock> owned(lock);
      pthread_mutex_destroy(&lock->mutex);
   }
}

void RankedLock_Acquire(RankedLock *lock)
{
   /* Before the wait, which might never end. */
   if (CHECKS_RANKS) {
      RankedLockCheck(lock);
   }
   pthread_mutex_lock(&lock->mutex);
   if (lock->depth++ == 0) {
      lock->next = sHeld;
      sHeld = lock;
   }
}

void RankedLock_Release(RankedLock *lock)
{
   if (--lock->depth == 0) {
      RankedLockForget(lock);
   }
   pthread_mutex_unlock(&lock->mutex);
}
