#include "lib/file/fileLock.h"

#include "lib/file/lock/number.h"
#include "lib/file/lock/scan.h"
#include "lib/file/lock/wait.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

struct FileLockToken {
   char signature[4];
   bool valid;
   Owned<char> path;         /* Of the locked file. */
   Owned<char> memberPath;   /* Null for an implicit lock. */
   OwnedDirectory directory; /* That the member is in, wherever its path leads by now. */
};

namespace {

constexpr char SIGNATURE[4] = {'F', 'L', 'C', 'K'};

/* So long may the making of an entry take. */
constexpr uint64_t PROGRESS_MS = 8000;

/* After so many vain rounds, let others run. */
constexpr unsigned HASTY_ROUNDS = 16;

constexpr uint32_t NUMBERS = 65536;

/* Of a step of the entry loop, which else gives 0 or an error: it is to be gone round again. */
constexpr int ONCE_MORE = -1;

/* What makes a directory, and whether it could not be made. */
int FileLockCreationFailure(int error, bool *refused)
{
   *refused = error == EROFS || error == EACCES;
   return error;
}

int FileLockRemoveObstacle(const FileLockPlace &place)
{
   static constexpr const char *tag = "FileLockCreateEntryDirectory";
   const int error = FileLockPlace_Clear(place, false);
   struct stat status;

   if (error == 0 || error == ENOENT) {
      Log("FILE: %s: '%s' is not a directory. Removed.\n", tag, place.directory.get());
      return ONCE_MORE;
   }
   if (FileLockPlace_Look(place, &status) == 0 && S_ISDIR(status.st_mode)) {
      return ONCE_MORE;
   }
   Log("FILE: %s unable to remove '%s': %s\n", tag, place.directory.get(), strerror(error));
   return error;
}

/* What it means that the lock directory could not be made, or that it could not be opened. */
int FileLockNoDirectory(const FileLockPlace &place, int makingError, int openingError, bool *refused)
{
   struct stat status;
   const int error = FileLockPlace_Look(place, &status);

   if (error == 0 && !S_ISDIR(status.st_mode)) {
      return FileLockRemoveObstacle(place);
   }
   if (error != 0 && error != ENOENT) {
      Log("FILE: %s stat failure on '%s': %s\n", "FileLockCreateEntryDirectory", place.directory.get(),
          strerror(error));
      return error;
   }
   if (makingError != 0 && makingError != EEXIST) {
      return FileLockCreationFailure(makingError, refused);
   }
   const bool wasThere = openingError != ENOENT && openingError != ENOTDIR && openingError != ELOOP;
   return wasThere ? openingError : ONCE_MORE;
}

/* Opens the lock directory, which is made if need be. */
int FileLockFindDirectory(FileLockPlace *place, bool *refused)
{
   const int makingError = FileLockPlace_Make(*place);
   const int openingError = FileLockPlace_Open(place);

   return openingError == 0 ? 0 : FileLockNoDirectory(*place, makingError, openingError, refused);
}

/* In a folder that may not be read nothing is created. But the lock directory may be there already, with those in it
   who have the lock: that is only asked for, so by its path. */
bool FileLockFolderRefuses(const FileLockPlace &place, int error)
{
   struct stat status;

   return error == EACCES && place.directory != nullptr && lstat(place.directory.get(), &status) == -1 &&
          errno == ENOENT;
}

int FileLockTakeNumber(FileLockAttempt *attempt, OwnedDescriptor *writing, bool *refused)
{
   attempt->number = arc4random_uniform(NUMBERS);
   attempt->name = FileLockMember_Name(FILE_LOCK_MEMBER, attempt->number);
   const FileLockName entry = FileLockMember_Name(FILE_LOCK_ENTRY, attempt->number);
   int error = FileLockPlace_MakeDirectory(attempt->place, entry.text);
   if (error == 0) {
      error = FileLockNumber_Take(attempt->place, attempt->number, attempt->exclusive, writing);
   } else {
      FileLockCreationFailure(error, refused);
   }
   return error == EEXIST || error == ENOENT ? ONCE_MORE : error;
}

int FileLockNoProgress(const FileLockPlace &place)
{
   Log("FILE: %s lack of progress on '%s'\n", "FileLockCreateEntryDirectory", place.path.get());
   return EBUSY;
}

/* Holds a number of the lock directory, which is made if need be, with En open. *refused: nothing can be created here. */
int FileLockCreateEntryDirectory(FileLockAttempt *attempt, OwnedDescriptor *writing, bool *refused)
{
   for (unsigned round = 0;; round++) {
      if (FileLockWait_NowMs() - attempt->startMs > PROGRESS_MS) {
         return FileLockNoProgress(attempt->place);
      }
      if (round >= HASTY_ROUNDS && !FileLockWait_Pause(*attempt, 1)) {
         return ECANCELED;
      }
      const FileLockClearedMask cleared;
      int error = FileLockFindDirectory(&attempt->place, refused);
      if (error == 0) {
         error = FileLockTakeNumber(attempt, writing, refused);
      }
      if (error != ONCE_MORE) {
         return error;
      }
   }
}

int FileLockHighest(FileLockAttempt *attempt, FileLockMember *member)
{
   attempt->ticket = std::max(attempt->ticket, member->ticket);
   return 0;
}

uint64_t FileLockWallClock()
{
   struct timeval now;

   gettimeofday(&now, nullptr);
   return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

int FileLockWriteMember(const FileLockAttempt &attempt, int fd, const char *name)
{
   static constexpr const char *tag = "FileLockCreateMemberFile";
   char record[FILE_LOCK_RECORD_SIZE];

   FileLockMember_Compose(record, attempt.place.self, attempt.ticket, attempt.exclusive, FileLockWallClock(),
                          attempt.place.checksum);
   const ssize_t length = write(fd, record, sizeof record);
   if (length == -1) {
      const int error = errno;
      Log("FILE: %s write of '%s' failed: %s\n", tag, FileLockPlace_Path(attempt.place, name).get(),
          strerror(error));
      return error;
   }
   if (length != static_cast<ssize_t>(sizeof record)) {
      Log("FILE: %s write length issue on '%s': %zd and %zd\n", tag,
          FileLockPlace_Path(attempt.place, name).get(), length, static_cast<ssize_t>(sizeof record));
      return EIO;
   }
   return 0;
}

/* Chooses a ticket, while the file says that a choice is being made, and writes it. */
int FileLockChoose(FileLockAttempt *attempt, const char *name, OwnedDescriptor writing)
{
   int error = FileLockScanDirectory(attempt, nullptr, FileLockHighest);
   if (error != 0) {
      return error;
   }
   if (attempt->ticket == UINT32_MAX) {
      return FileLockNoProgress(attempt->place);
   }
   attempt->ticket++;
   error = FileLockWriteMember(*attempt, writing.get(), name);
   if (close(writing.release()) == -1 && error == 0) {
      error = errno;
      Log("FILE: %s close of '%s' failed: %s\n", "FileLockCreateMemberFile",
          FileLockPlace_Path(attempt->place, name).get(), strerror(error));
   }
   return error;
}

int FileLockPublish(const FileLockPlace &place, const char *writing, const char *member)
{
   const int error = FileLockPlace_Rename(place, writing, member);

   if (error != 0) {
      Log("FILE: %s FileRename of '%s' to '%s' failed: %s\n", "FileLockCreateMemberFile",
          FileLockPlace_Path(place, writing).get(), FileLockPlace_Path(place, member).get(), strerror(error));
   }
   return error;
}

int FileLockRemoveEntry(const FileLockPlace &place, const char *name)
{
   return FileLockRemoveLockingFile(place.stream, FileLockPlace_Path(place, name).get());
}

/* Publishes a ticket under the number that is held, and gives that up. On failure the files are gone again; if one cannot be
   removed, its owner has to be known, and the number stays held. */
int FileLockCreateMemberFile(FileLockAttempt *attempt, OwnedDescriptor writing)
{
   const FileLockPlace &place = attempt->place;
   const FileLockName name = FileLockMember_Name(FILE_LOCK_WRITING, attempt->number);
   int left = 0;

   int error = FileLockChoose(attempt, name.text, std::move(writing));
   if (error == 0) {
      error = FileLockPublish(place, name.text, attempt->name.text);
   }
   if (error != 0) {
      /* The renaming may have failed and taken effect, where another machine does it. */
      FileLockRemoveEntry(place, attempt->name.text);
      left = FileLockRemoveEntry(place, name.text);
   }
   if (left == 0) {
      FileLockNumber_Release(place, attempt->number, attempt->exclusive);
   }
   return error;
}

/* Two looks, as a list is no snapshot. The first sees every process that chose without knowing our ticket, and lets
   it finish; only the second is sure to see what it has chosen. */
int FileLockWaitForTurn(FileLockAttempt *attempt)
{
   const int error = FileLockWait_ForChoosers(*attempt);
   return error != 0 ? error : FileLockWait_ForPossession(attempt);
}

/* From the number that is held to the lock. On failure nothing is left but the lock directory. */
int FileLockAcquire(FileLockAttempt *attempt, OwnedDescriptor writing)
{
   int error = FileLockCreateMemberFile(attempt, std::move(writing));
   if (error != 0) {
      return error;
   }
   error = FileLockWaitForTurn(attempt);
   if (error != 0) {
      FileLockRemoveEntry(attempt->place, attempt->name.text);
   }
   return error;
}

FileLockToken *FileLockMakeToken(FileLockPlace *place, Owned<char> memberPath)
{
   auto *const token = new (Util_SafeCalloc(1, sizeof(FileLockToken))) FileLockToken();

   memcpy(token->signature, SIGNATURE, sizeof SIGNATURE);
   token->valid = true;
   token->path = std::move(place->path);
   token->memberPath = std::move(memberPath);
   token->directory = std::move(place->stream);
   return token;
}

/* What an attempt that failed leaves is nothing. */
void FileLockLeave(const FileLockPlace &place)
{
   if (place.stream != nullptr) {
      FileLockPlace_RemoveSelf(place.stream, place.directory.get());
   } else {
      static_cast<void>(FileLockPlace_Clear(place, true));
   }
}

void FileLockTell(const FileLockHooks &hooks, int error)
{
   /* That it gave up, the caller knows. */
   if (error != 0 && error != ECANCELED && hooks.message != nullptr) {
      hooks.message(hooks.list, "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.",
                    error, strerror(error));
   }
}

} // namespace

FileLockToken *FileLockIntrinsicPortable(const char *path, bool exclusive, uint32_t maxWaitMs,
                                         const FileLockHooks &hooks, int *error)
{
   FileLockAttempt attempt;
   OwnedDescriptor writing;

   *error = FileLockPlace_Find(&attempt.place, path);
   bool refused = FileLockFolderRefuses(attempt.place, *error);
   if (*error != 0 && !refused) {
      Log("FILE: %s stat failure on '%s': %s\n", "FileLockIntrinsicPortable", path, strerror(*error));
      return nullptr;
   }
   attempt.exclusive = exclusive;
   attempt.maxWaitMs = maxWaitMs;
   attempt.hooks = &hooks;
   attempt.startMs = FileLockWait_NowMs();
   if (*error == 0) {
      *error = FileLockCreateEntryDirectory(&attempt, &writing, &refused);
   }
   if (refused && !exclusive) {
      *error = 0;
      Log("FILE: %s implicit %s lock succeeded on '%s'.\n", "FileLockIntrinsicPortable", "S",
          attempt.place.path.get());
      return FileLockMakeToken(&attempt.place, nullptr);
   }
   if (*error == 0) {
      *error = FileLockAcquire(&attempt, std::move(writing));
   }
   if (*error == 0) {
      return FileLockMakeToken(&attempt.place, FileLockPlace_Path(attempt.place, attempt.name.text));
   }
   FileLockLeave(attempt.place);
   if (*error == EAGAIN) {
      *error = 0;
   }
   return nullptr;
}

/* The token holds all that is needed: the process may have lost sight of the rest, as after fork(2). */
int FileUnlockIntrinsic(FileLockToken *token)
{
   int error = 0;

   if (memcmp(token->signature, SIGNATURE, sizeof SIGNATURE) != 0 || !token->valid) {
      Panic("VERIFY %s:%d\n", "lib/file/fileLock", __LINE__);
   }
   char *const path = token->memberPath.get();
   if (path != nullptr) {
      error = FileLockRemoveLockingFile(token->directory, path);
      /* What is left of it is the path of the lock directory. */
      *strrchr(path, '/') = '\0';
      FileLockPlace_RemoveSelf(token->directory, path);
   }
   std::destroy_at(token);
   memset(static_cast<void *>(token), 0, sizeof *token);
   free(token);
   return error;
}

FileLockToken *FileLock_Lock(const char *path, bool exclusive, uint32_t maxWaitMs, const FileLockHooks &hooks,
                             int *error)
{
   FileLockToken *const token = FileLockIntrinsicPortable(path, exclusive, maxWaitMs, hooks, error);

   FileLockTell(hooks, *error);
   return token;
}

int FileLock_Unlock(FileLockToken *token, const FileLockHooks &hooks)
{
   const int error = FileUnlockIntrinsic(token);

   FileLockTell(hooks, error);
   return error;
}

bool FileLock_IsImplicit(const FileLockToken *token)
{
   return token->memberPath == nullptr;
}
