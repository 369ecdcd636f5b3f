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
int FileLockScanner(const FileLockPlace &place, const char *name, uint32_t number, FileLockScanAction action,
                    void *context)
{
   FileLockMember member;
   int error = 0;

   switch (FileLockScan_Standing(place, name, &member, &error)) {
   case FILE_LOCK_COUNTS:
      return action(name, &member, context);
   case FILE_LOCK_OVER: {
      const Owned<char> reason(Str_SafeAsprintf(nullptr, "invalid executionID %s.", member.execution));
      FileLockReportDiscarded(place, name, reason.get());
      FileLockNumber_Reclaim(place, number, name);
      return 0;
   }
   case FILE_LOCK_FOREIGN:
      FileLockReportDiscarded(place, name, "lock file has been moved.");
      return 0;
   case FILE_LOCK_UNKNOWN:
      return error;
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

FileLockStanding FileLockScan_Standing(const FileLockPlace &place, const char *name, FileLockMember *member,
                                       int *error)
{
   FileLockReading reading = FileLockMemberValues(place, name, member);
   FileLockEntry entry;
   uint32_t number;

   if (FileLockMember_IsProblematic(reading) && FileLockMember_ParseName(name, &entry, &number)) {
      FileLockNumber_Reclaim(place, number, name);
      /* If it was not the file that failed but the reading, its owner may hold the lock. */
      reading = FileLockMember_Read(place, name, member);
   }
   if (FileLockMember_IsProblematic(reading)) {
      return FILE_LOCK_HOPELESS;
   }
   if (reading.step == FILE_LOCK_READ_VANISHED) {
      return FILE_LOCK_GONE;
   }
   if (reading.step != FILE_LOCK_READ_DONE) {
      *error = reading.error;
      return FILE_LOCK_UNKNOWN;
   }
   if (FileLockIdentity_HasEnded(place.self, member->machine, member->execution)) {
      return FILE_LOCK_OVER;
   }
   return member->checksum == std::string_view(place.checksum) ? FILE_LOCK_COUNTS : FILE_LOCK_FOREIGN;
}

int FileLockScanDirectory(const FileLockPlace &place, const char *own, FileLockScanAction action,
                          void *context)
{
   FileLockEntry entry;
   FileLockNames list;
   uint32_t number;

   int error = FileLockNames_Read(place.stream.get(), &list);
   if (error != 0) {
      return error;
   }
   for (const char *name = nullptr; (name = FileLockNames_Next(list, name)) != nullptr;) {
      if (!FileLockMember_ParseName(name, &entry, &number)) {
         FileLockReportInvalidName(place, name);
         continue;
      }
      if (entry != FILE_LOCK_MEMBER || (own != nullptr && name == std::string_view(own))) {
         continue;
      }
      error = FileLockScanner(place, name, number, action, context);
      if (error != 0) {
         return error;
      }
   }
   return 0;
}
