#include "lib/file/lock/number.h"

#include "lib/public/program.h"
#include "lib/string/str.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

using namespace std::string_view_literals;

constexpr const char *TAG = "FileLockCreateEntryDirectory";

/* Room for four fields with dots between them. */
constexpr size_t MARKER_SIZE =
    FILE_LOCK_EXECUTION_SIZE + FILE_LOCK_CHECKSUM_SIZE + FILE_LOCK_MACHINE_SIZE + 2;

struct Marker {
   char name[MARKER_SIZE];
};

/* The machine comes last, as it may hold dots. */
Marker FileLockOwnMarker(const FileLockPlace &place, bool exclusive)
{
   Marker marker;

   Str_Sprintf(marker.name, sizeof marker.name, "%s.%s.%s.%s", place.self.execution, exclusive ? "X" : "S",
               place.checksum, place.self.machine);
   return marker;
}

/* Of a marker, from the lock directory. */
Owned<char> FileLockMarkerPath(const FileLockName &entry, const char *name)
{
   return Owned<char>(Str_SafeAsprintf(nullptr, "%s/%s", entry.text, name));
}

/* The text up to the first dot, which goes with it; all of it if there is none. */
std::string_view FileLockCutField(std::string_view *text)
{
   const size_t dot = text->find('.');
   const std::string_view field = text->substr(0, dot);

   text->remove_prefix(std::min(field.size() + 1, text->size()));
   return field;
}

FileLockOwner FileLockJudge(const FileLockPlace &place, const FileLockIdentity &who,
                            std::string_view checksum)
{
   if (who.machine != std::string_view(place.self.machine)) {
      return checksum == place.checksum ? FILE_LOCK_REMOTE : FILE_LOCK_ELSEWHERE;
   }
   if (!FileLockValidExecutionID(who.execution)) {
      return FILE_LOCK_ENDED;
   }
   return checksum == place.checksum ? FILE_LOCK_RUNNING : FILE_LOCK_ELSEWHERE;
}

FileLockHolder FileLockParseMarker(const FileLockPlace &place, std::string_view name)
{
   FileLockHolder holder;

   const std::string_view execution = FileLockCutField(&name);
   const std::string_view type = FileLockCutField(&name);
   const std::string_view checksum = FileLockCutField(&name);
   if (name.empty() || name.size() >= FILE_LOCK_MACHINE_SIZE ||
       execution.size() >= FILE_LOCK_EXECUTION_SIZE) {
      holder.owner = FILE_LOCK_REMOTE;
      return holder;
   }
   name.copy(holder.who.machine, name.size());
   execution.copy(holder.who.execution, execution.size());
   holder.exclusive = type != "S"sv;
   holder.owner = FileLockJudge(place, holder.who, checksum);
   return holder;
}

int FileLockListMarkers(const FileLockPlace &place, const FileLockName &entry, FileLockNames *markers)
{
   const OwnedDirectory stream = FileLockPlace_OpenDirectory(place, entry.text);
   return stream != nullptr ? FileLockNames_Read(stream.get(), markers) : errno;
}

/* Of all who left a marker, but for one that has the name own, the one that counts most; exclusive if any of those who may
   go on is. */
int FileLockSurvey(const FileLockPlace &place, const FileLockName &entry, std::string_view own,
                   FileLockHolder *result)
{
   FileLockNames markers;

   *result = {};
   const int error = FileLockListMarkers(place, entry, &markers);
   if (error != 0) {
      return error;
   }
   for (const char *name = nullptr; (name = FileLockNames_Next(markers, name)) != nullptr;) {
      if (name == own) {
         continue;
      }
      FileLockHolder holder = FileLockParseMarker(place, name);
      const bool bothGoOn = result->owner > FILE_LOCK_ENDED && holder.owner > FILE_LOCK_ENDED;
      const bool exclusive = holder.exclusive || (bothGoOn && result->exclusive);
      if (holder.owner > result->owner) {
         holder.exclusive = exclusive;
         *result = holder;
      } else if (bothGoOn) {
         result->exclusive = exclusive;
      }
   }
   return 0;
}

void FileLockReportStuck(const FileLockPlace &place, const char *name, int error)
{
   Log("FILE: %s unable to remove '%s': %s\n", TAG, FileLockPlace_Path(place, name).get(), strerror(error));
}

void FileLockRemoveEntryDirectory(const FileLockPlace &place, const FileLockName &entry)
{
   const int error = FileLockPlace_Remove(place, entry.text, true);

   /* Not empty: another process, which is about to withdraw, has a marker in it and will remove it. */
   if (error != 0 && error != ENOENT && error != ENOTEMPTY && error != EEXIST) {
      FileLockReportStuck(place, entry.text, error);
   }
}

void FileLockWithdraw(const FileLockPlace &place, const FileLockName &entry, const Marker &own)
{
   const Owned<char> marker = FileLockMarkerPath(entry, own.name);
   const int error = FileLockPlace_Remove(place, marker.get(), false);

   if (error != 0 && error != ENOENT) {
      FileLockReportStuck(place, marker.get(), error);
      return;
   }
   FileLockRemoveEntryDirectory(place, entry);
}

/* Holds the number by its entry directory, which somebody has made, unless there is a marker of a stronger owner than
   allowed. EEXIST, ENOENT: it cannot be had. No marker is left then. */
int FileLockClaim(const FileLockPlace &place, const FileLockName &entry, const Marker &own,
                  FileLockOwner allowed)
{
   FileLockHolder other;

   const int fd = FileLockPlace_CreateFile(place, FileLockMarkerPath(entry, own.name).get());
   if (fd == -1) {
      return errno;
   }
   close(fd);
   const int error = FileLockSurvey(place, entry, own.name, &other);
   if (error == 0 && other.owner <= allowed) {
      return 0;
   }
   FileLockWithdraw(place, entry, own);
   return error != 0 ? error : EEXIST;
}

/* EEXIST if there is such a file, 0 if there is none. */
int FileLockInUse(const FileLockPlace &place, FileLockEntry entry, uint32_t number)
{
   struct stat status;
   const int error = FileLockPlace_Status(place, FileLockMember_Name(entry, number).text, &status);

   return error == 0 ? EEXIST : error == ENOENT ? 0 : error;
}

/* Whether the member file is of no use to anybody. */
bool FileLockIsOver(const FileLockPlace &place, const char *name)
{
   FileLockMember member;

   const FileLockReading reading = FileLockMember_Read(place, name, &member);
   if (reading.step != FILE_LOCK_READ_DONE) {
      return FileLockMember_IsProblematic(reading);
   }
   return FileLockIdentity_HasEnded(place.self, member.machine, member.execution);
}

/* What cannot be removed stays until somebody else meets it. */
void FileLockRemoveEndedMarkers(const FileLockPlace &place, const FileLockName &entry)
{
   FileLockNames markers;

   if (FileLockListMarkers(place, entry, &markers) != 0) {
      return;
   }
   for (const char *name = nullptr; (name = FileLockNames_Next(markers, name)) != nullptr;) {
      if (FileLockParseMarker(place, name).owner == FILE_LOCK_ENDED) {
         static_cast<void>(FileLockPlace_Remove(place, FileLockMarkerPath(entry, name).get(), false));
      }
   }
}

} // namespace

FileLockHolder FileLockNumber_Holder(const FileLockPlace &place, uint32_t number)
{
   FileLockHolder holder;

   const int error = FileLockSurvey(place, FileLockMember_Name(FILE_LOCK_ENTRY, number), "", &holder);
   if (error != 0 && error != ENOENT) {
      holder.owner = FILE_LOCK_REMOTE;
   }
   return holder;
}

namespace {

/* Whatever stands in the way of one who wants the number is cleared away if it is over: what the dead have left is never
   too much for the living. */
void FileLockClearWay(const FileLockPlace &place, uint32_t number)
{
   const FileLockName name = FileLockMember_Name(FILE_LOCK_MEMBER, number);
   const FileLockOwner owner = FileLockNumber_Holder(place, number).owner;

   if (owner == FILE_LOCK_ENDED || (owner == FILE_LOCK_NOBODY && FileLockIsOver(place, name.text))) {
      FileLockNumber_Reclaim(place, number, name.text);
   }
}

/* With the number held: EEXIST if anything is left under it. */
int FileLockCheckUnused(const FileLockPlace &place, uint32_t number)
{
   for (const FileLockEntry entry : {FILE_LOCK_MEMBER, FILE_LOCK_WRITING}) {
      const int error = FileLockInUse(place, entry, number);
      if (error != 0) {
         return error;
      }
   }
   return 0;
}

} // namespace

int FileLockNumber_Take(const FileLockPlace &place, uint32_t number, bool exclusive, bool *creation)
{
   const Marker own = FileLockOwnMarker(place, exclusive);
   const FileLockName entry = FileLockMember_Name(FILE_LOCK_ENTRY, number);

   int error = FileLockPlace_MakeDirectory(place, entry.text);
   *creation = error != 0;
   if (error == EEXIST) {
      FileLockClearWay(place, number);
   }
   if (error != 0) {
      return error;
   }
   error = FileLockClaim(place, entry, own, FILE_LOCK_NOBODY);
   if (error != 0) {
      FileLockRemoveEntryDirectory(place, entry);
      return error;
   }
   error = FileLockCheckUnused(place, number);
   if (error != 0) {
      FileLockWithdraw(place, entry, own);
   }
   if (error == EEXIST) {
      FileLockClearWay(place, number);
   }
   return error;
}

void FileLockNumber_Release(const FileLockPlace &place, uint32_t number, bool exclusive)
{
   FileLockWithdraw(place, FileLockMember_Name(FILE_LOCK_ENTRY, number), FileLockOwnMarker(place, exclusive));
}

void FileLockNumber_Reclaim(const FileLockPlace &place, uint32_t number, const char *name)
{
   const int savedErrno = errno;
   const Marker own = FileLockOwnMarker(place, true);
   const FileLockName entry = FileLockMember_Name(FILE_LOCK_ENTRY, number);

   const int made = FileLockPlace_MakeDirectory(place, entry.text);
   if ((made == 0 || made == EEXIST) && FileLockClaim(place, entry, own, FILE_LOCK_ENDED) == 0) {
      /* While En is there, so must be a marker of its maker, or nobody could tell that it is of no account. */
      if (FileLockRemoveLockingFile(place, FileLockMember_Name(FILE_LOCK_WRITING, number).text) == 0) {
         FileLockRemoveEndedMarkers(place, entry);
      }
      if (FileLockIsOver(place, name)) {
         FileLockRemoveLockingFile(place, name);
      }
      FileLockWithdraw(place, entry, own);
   } else if (made == 0) {
      FileLockRemoveEntryDirectory(place, entry);
   }
   errno = savedErrno;
}
