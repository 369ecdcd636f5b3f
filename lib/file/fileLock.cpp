#include "lib/file/fileLock.h"

#include "lib/file/file.h"
#include "lib/file/lock/number.h"
#include "lib/file/lock/scan.h"
#include "lib/file/lock/wait.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"

#include <cerrno>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

struct FileLockToken {
   char signature[4];
   bool valid;
   char *path;       /* Of the locked file. */
   char *memberPath; /* Null for an implicit lock. */
};

namespace {

constexpr char SIGNATURE[4] = {'F', 'L', 'C', 'K'};

/* So long may the making of an entry take. */
constexpr uint64_t PROGRESS_MS = 8000;

/* After so many vain rounds, let others run. */
constexpr unsigned HASTY_ROUNDS = 16;

constexpr uint32_t NUMBERS = 65536;

/* What came of a step of the entry loop: done, once more, or no. */
enum FileLockStep { STEP_DONE, STEP_AGAIN, STEP_FAILED, STEP_REFUSED };

struct FileLockOutcome {
   FileLockStep step;
   int error = 0;
};

FileLockOutcome FileLockCreationFailure(int error)
{
   return {.step = error == EROFS || error == EACCES ? STEP_REFUSED : STEP_FAILED, .error = error};
}

FileLockOutcome FileLockRemoveObstacle(const FileLockPlace &place)
{
   static constexpr const char *tag = "FileLockCreateEntryDirectory";
   const int error = FileDeletion(place.directory.get(), false);

   if (error != 0 && error != ENOENT) {
      Log("FILE: %s unable to remove '%s': %s\n", tag, place.directory.get(), strerror(error));
      return {.step = STEP_FAILED, .error = error};
   }
   Log("FILE: %s: '%s' is not a directory. Removed.\n", tag, place.directory.get());
   return {.step = STEP_AGAIN};
}

/* What it means that the lock directory could not be made, or that it could not be opened. */
FileLockOutcome FileLockNoDirectory(const FileLockPlace &place, int makingError, int openingError)
{
   const char *const path = place.directory.get();
   struct stat status;
   const int error = FileAttributes(path, &status);

   if (error == 0 && !S_ISDIR(status.st_mode)) {
      return FileLockRemoveObstacle(place);
   }
   if (error != 0 && error != ENOENT) {
      Log("FILE: %s stat failure on '%s': %s\n", "FileLockCreateEntryDirectory", path, strerror(error));
      return {.step = STEP_FAILED, .error = error};
   }
   if (makingError != 0 && makingError != EEXIST) {
      return FileLockCreationFailure(makingError);
   }
   return openingError == ENOENT ? FileLockOutcome{.step = STEP_AGAIN}
                                 : FileLockCreationFailure(openingError);
}

/* Opens the lock directory, which is made if need be. */
FileLockOutcome FileLockFindDirectory(FileLockPlace *place)
{
   const int makingError = FileLockPlace_Make(*place);
   const int openingError = FileLockPlace_Open(place);

   return openingError == 0 ? FileLockOutcome{.step = STEP_DONE}
                            : FileLockNoDirectory(*place, makingError, openingError);
}

FileLockOutcome FileLockTakeNumber(FileLockAttempt *attempt)
{
   bool creation;

   attempt->number = arc4random_uniform(NUMBERS);
   const int error = FileLockNumber_Take(attempt->place, attempt->number, attempt->exclusive, &creation);
   if (error == 0) {
      return {.step = STEP_DONE};
   }
   if (error == EEXIST || error == ENOENT) {
      return {.step = STEP_AGAIN};
   }
   return creation ? FileLockCreationFailure(error) : FileLockOutcome{.step = STEP_FAILED, .error = error};
}

FileLockOutcome FileLockNoProgress(const FileLockPlace &place)
{
   Log("FILE: %s lack of progress on '%s'\n", "FileLockCreateEntryDirectory", place.path.get());
   return {.step = STEP_FAILED, .error = EBUSY};
}

/* Holds a number of the lock directory, which is made if need be. */
FileLockOutcome FileLockCreateEntryDirectory(FileLockAttempt *attempt)
{
   for (unsigned round = 0;; round++) {
      if (FileLockWait_NowMs() - attempt->startMs > PROGRESS_MS) {
         return FileLockNoProgress(attempt->place);
      }
      if (round >= HASTY_ROUNDS && !FileLockWait_Pause(*attempt, 1)) {
         return {.step = STEP_FAILED, .error = ECANCELED};
      }
      FileLockOutcome outcome = FileLockFindDirectory(&attempt->place);
      if (outcome.step == STEP_DONE) {
         outcome = FileLockTakeNumber(attempt);
      }
      if (outcome.step != STEP_AGAIN) {
         return outcome;
      }
   }
}

int FileLockHighest([[maybe_unused]] const char *name, FileLockMember *member, void *context)
{
   auto *const highest = static_cast<uint32_t *>(context);

   if (member->ticket > *highest) {
      *highest = member->ticket;
   }
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
int FileLockChoose(FileLockAttempt *attempt, const char *name)
{
   uint32_t highest = 0;

   OwnedDescriptor file(FileLockPlace_CreateFile(attempt->place, name));
   if (file.get() == -1) {
      return errno;
   }
   int error = FileLockScanDirectory(attempt->place, nullptr, FileLockHighest, &highest);
   if (error != 0) {
      return error;
   }
   if (highest == UINT32_MAX) {
      return FileLockNoProgress(attempt->place).error;
   }
   attempt->ticket = highest + 1;
   error = FileLockWriteMember(*attempt, file.get(), name);
   if (close(file.release()) == -1 && error == 0) {
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

/* Publishes a ticket under the number that is held. On failure the file is gone again. */
int FileLockCreateMemberFile(FileLockAttempt *attempt)
{
   const FileLockName writing = FileLockMember_Name(FILE_LOCK_WRITING, attempt->number);

   int error = FileLockChoose(attempt, writing.text);
   if (error == 0) {
      error = FileLockPublish(attempt->place, writing.text, attempt->name.text);
   }
   if (error != 0) {
      FileLockRemoveLockingFile(attempt->place, writing.text);
   }
   return error;
}

/* Two looks, as a list is no snapshot. The first sees every process that chose without knowing our ticket, and lets
   it finish; only the second is sure to see what it has chosen. */
int FileLockWaitForTurn(const FileLockAttempt &attempt)
{
   const int error = FileLockWait_ForChoosers(attempt);
   return error != 0 ? error : FileLockWait_ForPossession(attempt);
}

/* From the number that is held to the lock. On failure nothing is left but the lock directory. */
int FileLockAcquire(FileLockAttempt *attempt)
{
   attempt->name = FileLockMember_Name(FILE_LOCK_MEMBER, attempt->number);
   int error = FileLockCreateMemberFile(attempt);
   FileLockNumber_Release(attempt->place, attempt->number, attempt->exclusive);
   if (error != 0) {
      return error;
   }
   error = FileLockWaitForTurn(*attempt);
   if (error != 0) {
      FileLockRemoveLockingFile(attempt->place, attempt->name.text);
   }
   return error;
}

FileLockToken *FileLockMakeToken(const FileLockAttempt &attempt, bool implicit)
{
   auto *const token = static_cast<FileLockToken *>(Util_SafeCalloc(1, sizeof(FileLockToken)));

   memcpy(token->signature, SIGNATURE, sizeof SIGNATURE);
   token->valid = true;
   token->path = Util_SafeStrdup(attempt.place.path.get());
   if (!implicit) {
      token->memberPath = FileLockPlace_Path(attempt.place, attempt.name.text).release();
   }
   return token;
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

   *error = FileLockPlace_Find(&attempt.place, path);
   if (*error != 0) {
      Log("FILE: %s stat failure on '%s': %s\n", "FileLockIntrinsicPortable", path, strerror(*error));
      return nullptr;
   }
   attempt.exclusive = exclusive;
   attempt.maxWaitMs = maxWaitMs;
   attempt.hooks = &hooks;
   attempt.startMs = FileLockWait_NowMs();
   const FileLockOutcome entry = FileLockCreateEntryDirectory(&attempt);
   if (entry.step == STEP_REFUSED && !exclusive) {
      Log("FILE: %s implicit %s lock succeeded on '%s'.\n", "FileLockIntrinsicPortable", "S",
          attempt.place.path.get());
      return FileLockMakeToken(attempt, true);
   }
   *error = entry.step == STEP_DONE ? FileLockAcquire(&attempt) : entry.error;
   if (*error == 0) {
      return FileLockMakeToken(attempt, false);
   }
   rmdir(attempt.place.directory.get());
   if (*error == EAGAIN) {
      *error = 0;
   }
   return nullptr;
}

/* The token says all that is needed: the process may have lost sight of the rest, as after fork(2). */
int FileUnlockIntrinsic(FileLockToken *token)
{
   if (memcmp(token->signature, SIGNATURE, sizeof SIGNATURE) != 0 || !token->valid) {
      Panic("VERIFY %s:%d\n", "lib/file/fileLock", __LINE__);
   }
   const Owned<FileLockToken> owned(token);
   const Owned<char> path(token->path);
   const Owned<char> memberPath(token->memberPath);
   int error = 0;

   token->valid = false;
   if (memberPath != nullptr) {
      if (unlink(memberPath.get()) == -1 && errno != ENOENT) {
         error = FileLockReportRemoval(memberPath.get(), errno);
      }
      /* What is left of it is the path of the lock directory. */
      *strrchr(memberPath.get(), '/') = '\0';
      rmdir(memberPath.get());
   }
   memset(token, 0, sizeof *token);
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
