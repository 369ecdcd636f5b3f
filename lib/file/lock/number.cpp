#include "lib/file/lock/number.h"

#include "lib/file/lock/member.h"
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

struct FileLockMarker {
   char name[MARKER_SIZE];
};

/* The machine comes last, as it may hold dots. */
FileLockMarker FileLockOwnMarker(const FileLockPlace &place, bool exclusive)
{
   FileLockMarker marker;

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

FileLockHolder FileLockParseMarker(const FileLockPlace &place, std::string_view name)
{
   FileLockHolder holder;

   const std::string_view execution = FileLockCutField(&name);
   const std::string_view type = FileLockCutField(&name);
   const std::string_view checksum = FileLockCutField(&name);
   holder.state = FILE_LOCK_CHOOSES;
   if (name.empty() || name.size() >= FILE_LOCK_MACHINE_SIZE ||
       execution.size() >= FILE_LOCK_EXECUTION_SIZE) {
      return holder;
   }
   name.copy(holder.who.machine, name.size());
   execution.copy(holder.who.execution, execution.size());
   holder.exclusive = type != "S"sv;
   const FileLockState state = FileLockPlace_Judge(place, name, holder.who.execution, checksum);
   holder.state = state == FILE_LOCK_WAITS ? FILE_LOCK_CHOOSES : state;
   return holder;
}

int FileLockListMarkers(const FileLockPlace &place, const FileLockName &entry, FileLockNames *markers)
{
   OwnedDirectory stream;
   const int error = FileLockPlace_OpenDirectory(place, entry.text, &stream);

   return error == 0 ? FileLockNames_Read(stream.get(), markers) : error;
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
      if (result->state > FILE_LOCK_STALE && holder.state > FILE_LOCK_STALE) {
         holder.exclusive = result->exclusive = holder.exclusive || result->exclusive;
      }
      if (holder.state > result->state) {
         *result = holder;
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

void FileLockWithdraw(const FileLockPlace &place, const FileLockName &entry, const FileLockMarker &own)
{
   const Owned<char> marker = FileLockMarkerPath(entry, own.name);
   const int error = FileLockPlace_Remove(place, marker.get(), false);

   if (error != 0 && error != ENOENT) {
      FileLockReportStuck(place, marker.get(), error);
      return;
   }
   FileLockRemoveEntryDirectory(place, entry);
}

/* Holds the number by its entry directory, which somebody has made, unless there is a marker that counts more than
   allowed. EEXIST, ENOENT: it cannot be had. No marker is left then. */
int FileLockClaim(const FileLockPlace &place, const FileLockName &entry, const FileLockMarker &own,
                  FileLockState allowed)
{
   OwnedDescriptor marker;
   FileLockHolder other;

   int error = FileLockPlace_CreateFile(place, FileLockMarkerPath(entry, own.name).get(), &marker);
   if (error != 0) {
      return error;
   }
   error = FileLockSurvey(place, entry, own.name, &other);
   if (error == 0 && other.state <= allowed) {
      return 0;
   }
   FileLockWithdraw(place, entry, own);
   return error != 0 ? error : EEXIST;
}

/* With the number held. EEXIST if anything is left under it. */
int FileLockBeginWriting(const FileLockPlace &place, uint32_t number, OwnedDescriptor *writing)
{
   struct stat status;
   const int error = FileLockPlace_Status(place, FileLockMember_Name(FILE_LOCK_MEMBER, number).text, &status);

   if (error != ENOENT) {
      return error == 0 ? EEXIST : error;
   }
   return FileLockPlace_CreateFile(place, FileLockMember_Name(FILE_LOCK_WRITING, number).text, writing);
}

/* Whether the member file is of no use to anybody. */
bool FileLockIsOver(const FileLockPlace &place, uint32_t number, const char *name)
{
   FileLockMember member(name, number);

   if (FileLockMember_Read(place, false, &member) != 0) {
      return false;
   }
   FileLockMember_Judge(place, &member);
   return member.state == FILE_LOCK_STALE || member.state == FILE_LOCK_UNREADABLE;
}

/* What cannot be removed stays until somebody else meets it. */
void FileLockRemoveEndedMarkers(const FileLockPlace &place, const FileLockName &entry)
{
   FileLockNames markers;

   if (FileLockListMarkers(place, entry, &markers) != 0) {
      return;
   }
   for (const char *name = nullptr; (name = FileLockNames_Next(markers, name)) != nullptr;) {
      if (FileLockParseMarker(place, name).state == FILE_LOCK_STALE) {
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
      holder.state = FILE_LOCK_CHOOSES;
   }
   return holder;
}

int FileLockNumber_Take(const FileLockPlace &place, uint32_t number, bool exclusive, OwnedDescriptor *writing)
{
   const FileLockMarker own = FileLockOwnMarker(place, exclusive);
   const FileLockName entry = FileLockMember_Name(FILE_LOCK_ENTRY, number);

   int error = FileLockClaim(place, entry, own, FILE_LOCK_UNREADABLE);
   if (error != 0) {
      FileLockRemoveEntryDirectory(place, entry);
      return error;
   }
   error = FileLockBeginWriting(place, number, writing);
   if (error != 0) {
      FileLockWithdraw(place, entry, own);
   }
   return error;
}

void FileLockNumber_Release(const FileLockPlace &place, uint32_t number, bool exclusive)
{
   FileLockWithdraw(place, FileLockMember_Name(FILE_LOCK_ENTRY, number), FileLockOwnMarker(place, exclusive));
}

void FileLockNumber_Reclaim(const FileLockPlace &place, uint32_t number, const char *name)
{
   const FileLockClearedMask cleared;
   const FileLockMarker own = FileLockOwnMarker(place, true);
   const FileLockName entry = FileLockMember_Name(FILE_LOCK_ENTRY, number);
   const FileLockName writing = FileLockMember_Name(FILE_LOCK_WRITING, number);

   const int made = FileLockPlace_MakeDirectory(place, entry.text);
   if ((made == 0 || made == EEXIST) && FileLockClaim(place, entry, own, FILE_LOCK_STALE) == 0) {
      /* While En is there, so must be a marker of its maker, or nobody could tell that it is of no account. */
      if (FileLockRemoveLockingFile(place.stream, FileLockPlace_Path(place, writing.text).get()) == 0) {
         FileLockRemoveEndedMarkers(place, entry);
      }
      if (FileLockIsOver(place, number, name)) {
         FileLockRemoveLockingFile(place.stream, FileLockPlace_Path(place, name).get());
      }
      FileLockWithdraw(place, entry, own);
   } else if (made == 0) {
      FileLockRemoveEntryDirectory(place, entry);
   }
}
