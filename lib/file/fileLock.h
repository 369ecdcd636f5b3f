#ifndef TESSEL_LIB_FILE_FILELOCK_H
#define TESSEL_LIB_FILE_FILELOCK_H

#include <cstddef>
#include <cstdint>

/* Advisory locks on files among processes and machines that share a file system, without the system's lock calls: by
   directories and renames. docs/locks.md has the protocol, the files' layout, what is proved and what is
   assumed.

   Lamport, "A New Solution of Dijkstra's Concurrent Programming Problem", CACM 17(8), 1974.

   Paths are UTF-8. Two paths are the same file if they end in the same name in the same folder; a link as the
   last component is a file of its own. Machines have to mount the file system at the same place.

   Safe to call from several threads, each for its own tokens; but the file mode creation mask of the process
   is cleared for moments while an entry is made, so that other threads which create files then must not count
   on it.

   A process that has a lock and asks for it once more waits for itself, unless both are shared. */

constexpr uint32_t FILE_LOCK_TRY_ONCE = 0;
constexpr uint32_t FILE_LOCK_WAIT_FOREVER = UINT32_MAX;

/* A lock that is held, or counts as held. It has a descriptor of its directory open, which a child of fork(2) that is to
   give it back must keep, too. */
struct FileLockToken;

struct MsgList;

/* What a caller may want to hear of, or say, meanwhile. All of it may be null. */
struct FileLockHooks {
   /* Takes a message for the user to the list: its identifier and text as a format, and the arguments. MsgList_Append is
      such a routine, but what makes up those lists stands on this library. */
   void (*message)(MsgList *list, const char *format, ...) = nullptr;
   MsgList *list = nullptr;
   /* Asked about ten times a second while waiting: true ends the wait, and the attempt fails with ECANCELED. */
   bool (*giveUp)(void *context) = nullptr;
   void *context = nullptr;
};

/* Takes the lock of the file at path, which need not exist, blocking for up to about maxWaitMs milliseconds (it is
   looked at the time once after each pause, of 2 s at most). The token is to be given to FileLock_Unlock.

   Null with *error 0: the lock is busy, that is, the wait was over. Null with *error another number of
   errno's: it cannot be taken, which the hooks have been told (but for ECANCELED). Neither leaves anything
   behind that another process of this machine does not clear away.

   A shared lock where this process can create nothing (EROFS, EACCES) is granted without a trace: it keeps
   nobody out, and is kept out by nobody. A lock directory that is there and cannot be opened is an error. */
[[nodiscard]] FileLockToken *FileLock_Lock(const char *path, bool exclusive, uint32_t maxWaitMs,
                                           const FileLockHooks &hooks, int *error);

/* Gives the lock back and frees the token, whatever comes of it: 0, or the error of a ticket that could not be removed,
   which has been logged and told to the hooks. That ticket blocks others until this process has ended. */
int FileLock_Unlock(FileLockToken *token, const FileLockHooks &hooks);

/* The same two without messages for the user. */
[[nodiscard]] FileLockToken *FileLockIntrinsicPortable(const char *path, bool exclusive, uint32_t maxWaitMs,
                                                       const FileLockHooks &hooks, int *error);
int FileUnlockIntrinsic(FileLockToken *token);

/* Whether the token was granted without a trace. */
[[nodiscard]] bool FileLock_IsImplicit(const FileLockToken *token);

/* What an entry of a lock directory is worth. */
enum FileLockState {
   FILE_LOCK_GONE,       /* Nothing: it is not there any more. Never listed. */
   FILE_LOCK_UNREADABLE, /* Says nothing of its owner. */
   FILE_LOCK_STALE,      /* Its process has ended: will be cleared away by the next to take the lock. */
   FILE_LOCK_MOVED,   /* Belongs to a lock in another place, from where it was moved or copied: is ignored. */
   FILE_LOCK_CHOOSES, /* Is about to take a ticket. */
   FILE_LOCK_WAITS,   /* Has a ticket. */
   FILE_LOCK_HOLDS,
};

struct FileLockParty {
   FileLockState state;
   char name[16];      /* Of the entry, cut if it is longer than such a name can be. */
   char machine[65];   /* Empty where unreadable, as is the next. */
   char execution[33]; /* Process id, and after a "-" its start time. */
   bool local;         /* Whether that is this machine. */
   bool exclusive;
   uint32_t ticket;       /* 0 while choosing. */
   uint64_t microseconds; /* Since 1970: when it drew the ticket, or made the entry. 0 if unreadable. */
};

/* Who holds, waits for or leaves a trace of the lock of the file at path, in the order of the tickets, choosers last; *parties
   is the caller's to free, null if there is nobody. Changes nothing and logs nothing. -1 with errno set, or
   the number of parties. A list that changed while it was read is read again, some times; if it changes all
   the time, what goes on meanwhile can be half seen. */
int FileLock_List(const char *path, FileLockParty **parties);

#endif
