#include "lib/file/lock/wait.h"

#include "base/errno.h"
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

/* How long an entry without an owner must have been there to count as left behind. The time only keeps us from getting in the
   way of its maker: see number.h for what keeps us from doing harm. */
constexpr uint64_t LEFT_BEHIND_MS = 8000;

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
bool FileLockPrecedes(const FileLockAttempt &attempt, const FileLockMember &member)
{
   const bool earlier = member.ticket < attempt.ticket ||
                        (member.ticket == attempt.ticket && strcmp(member.name, attempt.name.text) < 0);
   return earlier && (attempt.exclusive || member.exclusive);
}

/* Reads the member file again, as it may by now be that of another process, which may well wait for us. */
int FileLockLookAgain(const FileLockAttempt &attempt, FileLockMember *member)
{
   const FileLockPlace &place = attempt.place;
   struct stat status;

   int error = FileLockPlace_Status(place, member->name, &status);
   if (error == ENOENT) {
      member->state = FILE_LOCK_GONE;
      return 0;
   }
   if (error != 0) {
      Log("FILE: %s stat failure on '%s': %s\n", TAG, FileLockPlace_Path(place, member->name).get(),
          strerror(error));
      return error;
   }
   error = FileLockScan_Look(attempt, member);
   if (error != 0) {
      return error;
   }
   FileLockMember_Judge(place, member);
   if (member->state == FILE_LOCK_STALE) {
      Log("FILE: %s discarding file '%s'; invalid executionID.\n", TAG,
          FileLockPlace_Path(place, member->name).get());
      FileLockNumber_Reclaim(place, member->number, member->name);
   }
   return 0;
}

int FileLockWaitForPossession(FileLockAttempt *attempt, FileLockMember *member)
{
   while (member->state == FILE_LOCK_WAITS && FileLockPrecedes(*attempt, *member)) {
      int error = FileLockWait_Once(*attempt, member->machine, member->execution);
      if (error == 0) {
         error = FileLockLookAgain(*attempt, member);
      }
      if (error != 0) {
         return error;
      }
   }
   return 0;
}

/* Whether the entry is so much older than our ticket, by the clock of the file system, that its maker cannot still be on
   the way. */
bool FileLockIsOld(const FileLockAttempt &attempt, const struct stat &entry)
{
   struct stat own;

   return FileLockPlace_Status(attempt.place, attempt.name.text, &own) == 0 &&
          own.st_mtime - entry.st_mtime >= static_cast<time_t>(LEFT_BEHIND_MS / 1000);
}

/* Whether the owner of the number, of which that entry is there, needs no more waiting for after so long. Clears away what
   is left of it. */
bool FileLockIsSettled(const FileLockAttempt &attempt, const struct stat &entry, uint64_t waitedMs,
                       uint32_t number, const FileLockHolder &holder)
{
   switch (holder.state) {
   case FILE_LOCK_STALE:
      break;
   case FILE_LOCK_UNREADABLE:
      if (waitedMs < LEFT_BEHIND_MS && !FileLockIsOld(attempt, entry)) {
         return false;
      }
      break;
   case FILE_LOCK_MOVED:
      return true;
   default:
      return !attempt.exclusive && !holder.exclusive;
   }
   FileLockNumber_Reclaim(attempt.place, number, FileLockMember_Name(FILE_LOCK_MEMBER, number).text);
   return true;
}

/* Nobody has to wait for an entry directory alone: the ticket of its maker will be higher. But someone has to tidy up. */
int FileLockWaitForChooser(const FileLockAttempt &attempt, const char *name, FileLockEntry entry,
                           uint32_t number)
{
   const uint64_t beganMs = FileLockWait_NowMs();
   struct stat status;

   for (;;) {
      const int error = FileLockPlace_Status(attempt.place, name, &status);
      if (error != 0) {
         return error == ENOENT || entry == FILE_LOCK_ENTRY ? 0 : error;
      }
      const uint64_t waitedMs = FileLockWait_NowMs() - beganMs;
      const FileLockHolder holder = FileLockNumber_Holder(attempt.place, number);
      if (FileLockIsSettled(attempt, status, waitedMs, number, holder) || entry == FILE_LOCK_ENTRY) {
         return 0;
      }
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
      static_cast<void>(Uninterrupted([&pause] { return nanosleep(&pause, &pause); }));
      ms -= step;
   }
}

int FileLockWait_Once(const FileLockAttempt &attempt, const char *machine, const char *execution)
{
   if (FileLockIsLate(attempt)) {
      return FileLockTimeout(attempt, machine, execution);
   }
   return FileLockPauseAtLength(attempt) ? 0 : ECANCELED;
}

int FileLockWait_ForChoosers(const FileLockAttempt &attempt)
{
   FileLockEntry entry;
   FileLockNames list;
   uint32_t number;

   int error = FileLockNames_Read(attempt.place.stream.get(), &list);
   for (const char *name = nullptr; error == 0 && (name = FileLockNames_Next(list, name)) != nullptr;) {
      if (FileLockMember_ParseName(name, &entry, &number) && entry != FILE_LOCK_MEMBER) {
         error = FileLockWaitForChooser(attempt, name, entry, number);
      }
   }
   return error;
}

int FileLockWait_ForPossession(FileLockAttempt *attempt)
{
   return FileLockScanDirectory(attempt, FileLockPrecedes, FileLockWaitForPossession);
}
