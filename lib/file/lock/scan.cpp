#include "lib/file/lock/scan.h"

#include "lib/file/lock/number.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <cerrno>
#include <string_view>

namespace {

void FileLockReportDiscarded(const FileLockPlace &place, const char *name, const char *reason)
{
   Log("FILE: %s discarding %s from %s': %s\n", "FileLockScanner", name, place.directory.get(), reason);
}

/* Looks at one member file. */
int FileLockScanner(FileLockAttempt *attempt, FileLockMember *member, FileLockScanFilter matters,
                    FileLockScanAction action)
{
   const int error = FileLockScan_Look(*attempt, member);

   if (error != 0 ||
       (member->state == FILE_LOCK_WAITS && matters != nullptr && !matters(*attempt, *member))) {
      return error;
   }
   FileLockMember_Judge(attempt->place, member);
   switch (member->state) {
   case FILE_LOCK_WAITS:
      return action(attempt, member);
   case FILE_LOCK_STALE: {
      const Owned<char> reason(Str_SafeAsprintf(nullptr, "invalid executionID %s.", member->execution));
      FileLockReportDiscarded(attempt->place, member->name, reason.get());
      FileLockNumber_Reclaim(attempt->place, member->number, member->name);
      return 0;
   }
   case FILE_LOCK_MOVED:
      FileLockReportDiscarded(attempt->place, member->name, "lock file has been moved.");
      return 0;
   default:
      return 0;
   }
}

/* The name may be anyone's. */
void FileLockReportInvalidName(const FileLockPlace &place, const char *name)
{
   const Owned<char> escaped(UnicodeEscapeBuffer(name, -1, ENCODING_UTF8));
   Log("FILE: %s discarding %s from %s'; invalid file name.\n", "FileLockScanDirectory", escaped.get(),
       place.directory.get());
}

} // namespace

int FileLockScan_Look(const FileLockAttempt &attempt, FileLockMember *member)
{
   int error;

   do {
      error = FileLockMemberValues(attempt.place, member);
      if (error == 0 && member->state == FILE_LOCK_UNREADABLE) {
         FileLockNumber_Reclaim(attempt.place, member->number, member->name);
         /* If it was not the file that failed but the reading, its owner may hold the lock. */
         error = FileLockMember_Read(attempt.place, false, member);
      }
   } while (error == EAGAIN && (error = FileLockWait_Once(attempt, "", "")) == 0);
   return error;
}

int FileLockScanDirectory(FileLockAttempt *attempt, FileLockScanFilter matters, FileLockScanAction action)
{
   const FileLockPlace &place = attempt->place;
   FileLockEntry entry;
   FileLockNames list;
   uint32_t number;

   int error = FileLockNames_Read(place.stream.get(), &list);
   for (const char *name = nullptr; error == 0 && (name = FileLockNames_Next(list, name)) != nullptr;) {
      if (!FileLockMember_ParseName(name, &entry, &number)) {
         FileLockReportInvalidName(place, name);
      } else if (entry == FILE_LOCK_MEMBER && name != std::string_view(attempt->name.text)) {
         FileLockMember member(name, number);
         error = FileLockScanner(attempt, &member, matters, action);
      }
   }
   return error;
}
