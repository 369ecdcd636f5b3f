#ifndef TESSEL_LIB_FILE_LOCK_SCAN_H
#define TESSEL_LIB_FILE_LOCK_SCAN_H

#include "lib/file/lock/wait.h"

/* Looking at the tickets in a lock directory. The routines give 0, EAGAIN or ECANCELED as those in wait.h, or the error of
   what could not be looked at. */

/* Reads the member file that *member names. One that is at fault is reported and removed; if it is readable by then, it
   counts. One that cannot be read now is waited for. */
[[nodiscard]] int FileLockScan_Look(const FileLockAttempt &attempt, FileLockMember *member);

/* Whether a ticket matters, by what it says of itself; one that does not is passed over. */
using FileLockScanFilter = bool (*)(const FileLockAttempt &attempt, const FileLockMember &member);

/* Called for a ticket that has to be respected: 0, or the error's number to end the scan with. */
using FileLockScanAction = int (*)(FileLockAttempt *attempt, FileLockMember *member);

/* Calls the action for each ticket that matters (null: each) but the own one, in no order. Those of no account are reported,
   and cleared away where their owners are known to have ended. */
[[nodiscard]] int FileLockScanDirectory(FileLockAttempt *attempt, FileLockScanFilter matters,
                                        FileLockScanAction action);

#endif
