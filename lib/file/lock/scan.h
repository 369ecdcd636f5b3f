#ifndef TESSEL_LIB_FILE_LOCK_SCAN_H
#define TESSEL_LIB_FILE_LOCK_SCAN_H

#include "lib/file/lock/place.h"

/* Looking at the tickets in a lock directory. */

enum FileLockStanding {
   FILE_LOCK_COUNTS, /* A ticket that has to be respected. */
   FILE_LOCK_GONE,
   FILE_LOCK_OVER,     /* Of a process of this machine that has ended. */
   FILE_LOCK_FOREIGN,  /* Of a lock in another place. */
   FILE_LOCK_HOPELESS, /* Not readable, and not to be removed, which has been reported. */
   FILE_LOCK_UNKNOWN,  /* It could not be looked at. */
};

/* Reads a member file, and says what the ticket is worth. One that cannot be read is reported and removed. *error is set
   for FILE_LOCK_UNKNOWN. */
[[nodiscard]] FileLockStanding FileLockScan_Standing(const FileLockPlace &place, const char *name,
                                                     FileLockMember *member, int *error);

/* Called for a ticket that counts: 0, or the error's number to end the scan with. */
using FileLockScanAction = int (*)(const char *name, FileLockMember *member, void *context);

/* Calls the action for each ticket but own (null: for all), in no order. Those of no account are reported, and cleared away
   where their owners are known to have ended. 0 or an error's number. */
[[nodiscard]] int FileLockScanDirectory(const FileLockPlace &place, const char *own,
                                        FileLockScanAction action, void *context);

#endif
