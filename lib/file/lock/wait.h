#ifndef TESSEL_LIB_FILE_LOCK_WAIT_H
#define TESSEL_LIB_FILE_LOCK_WAIT_H

#include "lib/file/lock/member.h"
#include "lib/file/lock/place.h"

#include <cstdint>

/* One attempt at a lock. */
struct FileLockAttempt {
   FileLockPlace place;
   bool exclusive = false;
   uint32_t maxWaitMs = FILE_LOCK_WAIT_FOREVER;
   const FileLockHooks *hooks = nullptr;
   uint64_t startMs = 0; /* Of a clock that nobody sets. */
   uint32_t number = 0;
   FileLockName name{}; /* Of the member file. */
   uint32_t ticket = 0; /* While it is chosen: the highest so far. */
};

[[nodiscard]] uint64_t FileLockWait_NowMs();

/* The longest pause after so much waiting, in milliseconds; the shortest is half of it. */
[[nodiscard]] uint32_t FileLockWait_DelayMs(uint64_t elapsedMs);

/* Sleeps. False if the hooks say that the attempt is given up. */
[[nodiscard]] bool FileLockWait_Pause(const FileLockAttempt &attempt, uint32_t ms);

/* The routines below give 0; EAGAIN: the wait was over, which has been reported; ECANCELED; or the error of what could not be
   looked at. */

/* One pause in waiting for another's ticket, unless the wait is over. */
[[nodiscard]] int FileLockWait_Once(const FileLockAttempt &attempt, const char *machine,
                                    const char *execution);

/* The steps of a ticket's owner towards the lock, one after the other: */

/* Waits until every process that was choosing a ticket at the time of the call has published it or given up. One whose
   end is known is not waited for. A chooser gets 10 ms even where the wait is over. */
[[nodiscard]] int FileLockWait_ForChoosers(const FileLockAttempt &attempt);

/* Waits for every conflicting ticket before the own one. */
[[nodiscard]] int FileLockWait_ForPossession(FileLockAttempt *attempt);

#endif
