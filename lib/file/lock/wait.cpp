#include "lib/file/lock/wait.h"

#include "lib/file/lock/number.h"
#include "lib/file/lock/scan.h"
#include "lib/public/program.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

constexpr const char *TAG = "FileLockWaitForPossession";

constexpr uint32_t LONGEST_SLEEP_MS = 100;

/* A chooser is mostly done before a pause of 1 ms is over. */
constexpr uint64_t CHOOSER_DUE_MS = 10;
constexpr uint64_t CHOOSER_OVERDUE_MS = 100;

/* How much older than our ticket an entry without an owner must be to count as left behind. The time only keeps us from
   getting in the way of its maker: see fileLockNumber.h for what keeps us from doing harm. */
constexpr time_t LEFT_BEHIND_S = 8;

bool FileLockIsLate(const FileLockAttempt &attempt)
{
   return attempt.maxWaitMs != FILE_LOCK_WAIT_FOREVER &&
          FileLockWait_NowMs() - attempt.startMs >= attempt.maxWaitMs;
}

int FileLockTimeout(const FileLockAttempt &attempt, const char *machine, const char *execution)
{
   if (machine == std::string_view(attempt.place.self.machine)) {
      Log("FILE: %s timeout on '%s' due to a local process '%s'\n", TAG, attempt.place.path.get(), execution);
   } else {
      Log("FILE: %s timeout on '%s' due to another machine '%s'\n", TAG, attempt.place.path.get(), machine);
   }
   return EAGAIN;
}

bool FileLockPauseAtLength(const FileLockAttempt &attempt)
{
   const uint32_t delay = FileLockWait_DelayMs(FileLockWait_NowMs() - attempt.startMs);
   return FileLockWait_Pause(attempt, delay / 2 + arc4random_uniform(delay - delay / 2 + 1));
}

/* Before the own ticket, and not both shared. */
bool FileLockPrecedes(const FileLockAttempt &attempt, const char *name, const FileLockMember &member)
{
   const bool earlier = member.ticket < attempt.ticket ||
                        (member.ticket == attempt.ticket && strcmp(name, attempt.name.text) < 0);
   return earlier && (attempt.exclusive || member.exclusive);
}

/* The ticket of a process that ended while it was waited for. */
void FileLockDiscard(const FileLockPlace &place, const char *name)
{
   FileLockEntry entry;
   uint32_t number;

   if (FileLockMember_ParseName(name, &entry, &number)) {
      FileLockNumber_Reclaim(place, number, name);
   }
}

/* Reads the member file again, as it may by now be that of another process, which may well wait for us. False if there is
   nothing to wait for any more; *error says whether that is an error. */
bool FileLockIsStillThere(const FileLockPlace &place, const char *name, FileLockMember *member, int *error)
{
   struct stat status;

   *error = FileLockPlace_Status(place, name, &status);
   if (*error != 0) {
      if (*error == ENOENT) {
         *error = 0;
      } else {
         Log("FILE: %s stat failure on '%s': %s\n", TAG, FileLockPlace_Path(place, name).get(),
             strerror(*error));
      }
      return false;
   }
   switch (FileLockScan_Standing(place, name, member, error)) {
   case FILE_LOCK_COUNTS:
      return true;
   case FILE_LOCK_OVER:
      Log("FILE: %s discarding file '%s'; invalid executionID.\n", TAG,
          FileLockPlace_Path(place, name).get());
      FileLockDiscard(place, name);
      return false;
   default:
      return false;
   }
}

int FileLockWaitForPossession(const char *name, FileLockMember *member, void *context)
{
   const auto &attempt = *static_cast<const FileLockAttempt *>(context);
   int error = 0;

   while (FileLockPrecedes(attempt, name, *member)) {
      if (FileLockIsLate(attempt)) {
         return FileLockTimeout(attempt, member->machine, member->execution);
      }
      if (!FileLockPauseAtLength(attempt)) {
         return ECANCELED;
      }
      if (!FileLockIsStillThere(attempt.place, name, member, &error)) {
         return error;
      }
   }
   return 0;
}

/* Whether the entry is so much older than our ticket, by the clock of the file system, that its maker cannot still be on
   the way. */
bool FileLockIsLeftBehind(const FileLockAttempt &attempt, const char *name)
{
   struct stat entry;
   struct stat own;

   return FileLockPlace_Status(attempt.place, name, &entry) == 0 &&
          FileLockPlace_Status(attempt.place, attempt.name.text, &own) == 0 &&
          own.st_mtime - entry.st_mtime >= LEFT_BEHIND_S;
}

/* Whether the owner of the entry needs no more waiting for. Clears away what is left of it. */
bool FileLockIsSettled(const FileLockAttempt &attempt, const char *name, uint32_t number,
                       const FileLockHolder &holder)
{
   switch (holder.owner) {
   case FILE_LOCK_ENDED:
      break;
   case FILE_LOCK_NOBODY:
      if (!FileLockIsLeftBehind(attempt, name)) {
         return false;
      }
      break;
   case FILE_LOCK_ELSEWHERE:
      return true;
   default:
      return !attempt.exclusive && !holder.exclusive;
   }
   FileLockNumber_Reclaim(attempt.place, number, FileLockMember_Name(FILE_LOCK_MEMBER, number).text);
   return true;
}

int FileLockWaitForChooser(const FileLockAttempt &attempt, const char *name, uint32_t number)
{
   const uint64_t beganMs = FileLockWait_NowMs();
   struct stat status;

   for (;;) {
      const int error = FileLockPlace_Status(attempt.place, name, &status);
      if (error != 0) {
         return error == ENOENT ? 0 : error;
      }
      const FileLockHolder holder = FileLockNumber_Holder(attempt.place, number);
      if (FileLockIsSettled(attempt, name, number, holder)) {
         return 0;
      }
      const uint64_t waitedMs = FileLockWait_NowMs() - beganMs;
      if (waitedMs >= CHOOSER_DUE_MS && FileLockIsLate(attempt)) {
         return FileLockTimeout(attempt, holder.who.machine, holder.who.execution);
      }
      if (waitedMs < CHOOSER_OVERDUE_MS ? !FileLockWait_Pause(attempt, 1) : !FileLockPauseAtLength(attempt)) {
         return ECANCELED;
      }
   }
}

} // namespace

uint64_t FileLockWait_NowMs()
{
   struct timespec now;

   clock_gettime(CLOCK_MONOTONIC, &now);
   return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

uint32_t FileLockWait_DelayMs(uint64_t elapsedMs)
{
   if (elapsedMs <= 2000) {
      return 100;
   }
   return elapsedMs < 20000 ? static_cast<uint32_t>(elapsedMs / 10) : 2000;
}

bool FileLockWait_Pause(const FileLockAttempt &attempt, uint32_t ms)
{
   const FileLockHooks &hooks = *attempt.hooks;

   for (;;) {
      if (hooks.giveUp != nullptr && hooks.giveUp(hooks.context)) {
         return false;
      }
      if (ms == 0) {
         return true;
      }
      const uint32_t step = std::min(ms, LONGEST_SLEEP_MS);
      struct timespec pause = {.tv_sec = 0, .tv_nsec = static_cast<long>(step) * 1000000};
      while (nanosleep(&pause, &pause) == -1 && errno == EINTR) {
      }
      ms -= step;
   }
}

int FileLockWait_ForChoosers(const FileLockAttempt &attempt)
{
   FileLockEntry entry;
   FileLockNames list;
   uint32_t number;

   int error = FileLockNames_Read(attempt.place.stream.get(), &list);
   if (error != 0) {
      return error;
   }
   for (const char *name = nullptr; (name = FileLockNames_Next(list, name)) != nullptr;) {
      if (!FileLockMember_ParseName(name, &entry, &number) || entry == FILE_LOCK_MEMBER) {
         continue;
      }
      if (entry == FILE_LOCK_ENTRY) {
         /* Nobody has to wait for this one: its ticket will be higher. But someone has to tidy up. */
         FileLockIsSettled(attempt, name, number, FileLockNumber_Holder(attempt.place, number));
         continue;
      }
      error = FileLockWaitForChooser(attempt, name, number);
      if (error != 0) {
         return error;
      }
   }
   return 0;
}

int FileLockWait_ForPossession(const FileLockAttempt &attempt)
{
   return FileLockScanDirectory(attempt.place, attempt.name.text, FileLockWaitForPossession,
                                const_cast<FileLockAttempt *>(&attempt));
}
