#include "lib/file/fileLock.h"
#include "lib/file/lock/number.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

namespace {

uint64_t FileLockMicroseconds(const struct stat &status)
{
   return static_cast<uint64_t>(status.st_mtime) * 1000000;
}

/* Cuts what is longer than any of ours. */
template <size_t size> void FileLockCopy(char (&to)[size], const char *from)
{
   const size_t length = Str_Strlen(from, size - 1);

   memcpy(to, from, length);
   to[length] = '\0';
}

void FileLockSetOwner(const FileLockPlace &place, const char *machine, const char *execution,
                      FileLockParty *party)
{
   FileLockCopy(party->machine, machine);
   FileLockCopy(party->execution, execution);
   party->local = strcmp(machine, place.self.machine) == 0;
}

/* False if the file has gone meanwhile. */
bool FileLockDescribeMember(const FileLockPlace &place, const char *name, FileLockParty *party)
{
   FileLockMember member;

   const FileLockReading reading = FileLockMember_Read(place, name, &member);
   if (reading.step != FILE_LOCK_READ_DONE) {
      party->state = FILE_LOCK_UNREADABLE;
      return reading.step != FILE_LOCK_READ_VANISHED;
   }
   FileLockSetOwner(place, member.machine, member.execution, party);
   party->exclusive = member.exclusive;
   party->ticket = member.ticket;
   party->microseconds = member.microseconds;
   if (FileLockIdentity_HasEnded(place.self, member.machine, member.execution)) {
      party->state = FILE_LOCK_STALE;
   } else {
      party->state = strcmp(member.checksum, place.checksum) == 0 ? FILE_LOCK_WAITS : FILE_LOCK_MOVED;
   }
   return true;
}

bool FileLockDescribeEntry(const FileLockPlace &place, const char *name, uint32_t number,
                           FileLockParty *party)
{
   struct stat status;

   if (FileLockPlace_Status(place, name, &status) != 0) {
      return false;
   }
   const FileLockHolder holder = FileLockNumber_Holder(place, number);
   FileLockSetOwner(place, holder.who.machine, holder.who.execution, party);
   party->exclusive = holder.exclusive;
   party->microseconds = FileLockMicroseconds(status);
   switch (holder.owner) {
   case FILE_LOCK_NOBODY:
      party->state = FILE_LOCK_UNREADABLE;
      break;
   case FILE_LOCK_ENDED:
      party->state = FILE_LOCK_STALE;
      break;
   case FILE_LOCK_ELSEWHERE:
      party->state = FILE_LOCK_MOVED;
      break;
   default:
      party->state = FILE_LOCK_CHOOSES;
   }
   return true;
}

/* By ticket and name, as precedence has it; the choosers, who have no ticket, after all. */
bool FileLockComesFirst(const FileLockParty &a, const FileLockParty &b)
{
   const bool aChooses = a.name[0] != FILE_LOCK_MEMBER;
   const bool bChooses = b.name[0] != FILE_LOCK_MEMBER;

   if (aChooses != bChooses) {
      return bChooses;
   }
   return a.ticket != b.ticket ? a.ticket < b.ticket : strcmp(a.name, b.name) < 0;
}

/* In order: those who have nobody before them that they must wait for. */
void FileLockFindHolders(std::span<FileLockParty> parties)
{
   bool some = false;
   bool writer = false;

   for (FileLockParty &party : parties) {
      if (party.state != FILE_LOCK_WAITS) {
         continue;
      }
      if (!writer && (!some || !party.exclusive)) {
         party.state = FILE_LOCK_HOLDS;
      }
      some = true;
      writer = writer || party.exclusive;
   }
}

} // namespace

int FileLock_List(const char *path, FileLockParty **parties)
{
   FileLockPlace place;
   FileLockNames list;
   FileLockEntry entry;
   uint32_t number;
   size_t found = 0;

   *parties = nullptr;
   errno = FileLockPlace_Find(&place, path);
   if (errno != 0) {
      return -1;
   }
   errno = FileLockPlace_Open(&place);
   if (errno != 0) {
      return errno == ENOENT ? 0 : -1;
   }
   errno = FileLockNames_Read(place.stream.get(), &list);
   if (errno != 0) {
      return -1;
   }
   Owned<FileLockParty> all(
       static_cast<FileLockParty *>(Util_SafeCalloc(list.count + 1, sizeof(FileLockParty))));
   for (const char *name = nullptr; (name = FileLockNames_Next(list, name)) != nullptr;) {
      FileLockParty party = {};
      FileLockCopy(party.name, name);
      /* A file that is being written has its owner's directory beside it. */
      if (!FileLockMember_ParseName(name, &entry, &number) || entry == FILE_LOCK_WRITING) {
         continue;
      }
      if (entry == FILE_LOCK_MEMBER ? FileLockDescribeMember(place, name, &party)
                                    : FileLockDescribeEntry(place, name, number, &party)) {
         all.get()[found++] = party;
      }
   }
   const std::span<FileLockParty> sorted(all.get(), found);
   std::sort(sorted.begin(), sorted.end(), FileLockComesFirst);
   FileLockFindHolders(sorted);
   *parties = found != 0 ? all.release() : nullptr;
   return static_cast<int>(found);
}
