#ifndef TESSEL_LIB_FILE_LOCK_NUMBER_H
#define TESSEL_LIB_FILE_LOCK_NUMBER_H

#include "lib/file/lock/place.h"

#include <cstdint>

/* Holding a number of a lock directory: the right to make, rename and remove the files En and Mn.

   Whoever wants number n makes the directory Dn, and in it an empty file, the marker, whose name says who
   that is. If a list of Dn, read after that, shows no marker of anyone who still runs, then the number is
   held, until the marker is removed. Of two who try, the one who made his marker later sees that of the
   other: never both hold a number. A marker has a name that no other process can have. So removing that of a
   process which has ended hits nothing else, however late it comes; and while one is there, Dn cannot be
   removed.

   Only the holder of n touches En and Mn, but for the process whose ticket Mn is: that may remove it at any
   time.

   The routines give 0 or the error's number, and leave errno undefined, unless they say otherwise. */

struct FileLockHolder {
   /* FILE_LOCK_UNREADABLE: there is no marker: Dn was made a moment ago, or its maker ended in that moment. FILE_LOCK_STALE: all who
      left a marker have ended. FILE_LOCK_MOVED: there is one of another lock. FILE_LOCK_CHOOSES: of somebody
      who may be running. */
   FileLockState state = FILE_LOCK_UNREADABLE;
   bool exclusive = true;  /* What the owner wants the lock for. */
   FileLockIdentity who{}; /* If that can be read. */
};

/* Who holds the number, or strives to. Changes nothing. */
[[nodiscard]] FileLockHolder FileLockNumber_Holder(const FileLockPlace &place, uint32_t number);

/* Tries to get hold of a number of which this process has just made Dn, and makes En with it, open to be written to. EEXIST:
   it is in use, by someone or something; ENOENT: the lock directory has gone. On failure, what was made is
   gone again. */
[[nodiscard]] int FileLockNumber_Take(const FileLockPlace &place, uint32_t number, bool exclusive,
                                      OwnedDescriptor *writing);

/* Ends the hold. A failure is reported: then the number stays in use until this process has ended. */
void FileLockNumber_Release(const FileLockPlace &place, uint32_t number, bool exclusive);

/* Clears away what those who have ended left under the number: markers, En, the member file name if it is a ticket of
   theirs or not readable, and Dn. Does nothing while anyone holds the number. */
void FileLockNumber_Reclaim(const FileLockPlace &place, uint32_t number, const char *name);

#endif
