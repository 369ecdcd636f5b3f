#include "lib/file/fileLock.h"
#include "lib/file/lock/member.h"
#include "lib/file/lock/number.h"
#include "lib/string/str.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

namespace {

/* So often is the directory listed again if it changes all the time. */
constexpr int ROUNDS = 16;

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

void FileLockDescribeMember(const FileLockPlace &place, const char *name, uint32_t number,
                            FileLockParty *party)
{
   FileLockMember member(name, number);

   const int error = FileLockMember_Read(place, false, &member);
   FileLockMember_Judge(place, &member);
   party->state = error == 0 ? member.state : FILE_LOCK_UNREADABLE;
   if (party->state > FILE_LOCK_UNREADABLE) {
      FileLockSetOwner(place, member.machine, member.execution, party);
      party->exclusive = member.exclusive;
      party->ticket = member.ticket;
      party->microseconds = member.microseconds;
   }
}

void FileLockDescribeEntry(const FileLockPlace &place, const char *name, uint32_t number,
                           FileLockParty *party)
{
   struct stat status;

   if (FileLockPlace_Status(place, name, &status) != 0) {
      party->state = FILE_LOCK_GONE;
      return;
   }
   const FileLockHolder holder = FileLockNumber_Holder(place, number);
   FileLockSetOwner(place, holder.who.machine, holder.who.execution, party);
   party->state = holder.state;
   party->exclusive = holder.exclusive;
   party->microseconds = static_cast<uint64_t>(status.st_mtime) * 1000000;
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

/* Adds those whom the names tell of to *all. EAGAIN: one of them went on meanwhile, maybe under another name. */
int FileLockDescribe(const FileLockPlace &place, const FileLockNames &names, DynBuf *all)
{
   FileLockEntry entry;
   uint32_t number;

   for (const char *name = nullptr; (name = FileLockNames_Next(names, name)) != nullptr;) {
      FileLockParty party = {};
      FileLockCopy(party.name, name);
      /* A file that is being written has its owner's directory beside it. */
      if (!FileLockMember_ParseName(name, &entry, &number) || entry == FILE_LOCK_WRITING) {
         continue;
      }
      if (entry == FILE_LOCK_MEMBER) {
         FileLockDescribeMember(place, name, number, &party);
      } else {
         FileLockDescribeEntry(place, name, number, &party);
      }
      if (party.state == FILE_LOCK_GONE) {
         return EAGAIN;
      }
      DynBuf_SafeAppend(all, &party, sizeof party, "lib/file/lock/list", __LINE__);
   }
   return 0;
}

/* Reads the names of the lock directory that is there now, none if there is none. */
int FileLockReadNow(FileLockPlace *place, FileLockNames *names)
{
   const int error = FileLockPlace_Open(place);

   if (error != 0) {
      return error == ENOENT ? 0 : error;
   }
   return FileLockNames_Read(place->stream.get(), names);
}

/* One look: lists, describes, and lists again. EAGAIN: that was not the same, so that a lock which goes from one to the next,
   from one name to another, even from one directory to another, may have been missed. */
int FileLockLook(FileLockPlace *place, DynBuf *all)
{
   FileLockNames names;
   FileLockNames again;

   all->size = 0;
   int error = FileLockReadNow(place, &names);
   if (error == 0) {
      error = FileLockDescribe(*place, names, all);
   }
   if (error == 0) {
      error = FileLockReadNow(place, &again);
   }
   const bool same =
       names.size == again.size && (names.size == 0 || memcmp(names.data, again.data, names.size) == 0);
   return error != 0 || same ? error : EAGAIN;
}

} // namespace

int FileLock_List(const char *path, FileLockParty **parties)
{
   FileLockPlace place;
   OwnedDynBuf all;
   int rounds = 0;

   *parties = nullptr;
   int error = FileLockPlace_Find(&place, path);
   if (error == 0) {
      do {
         error = FileLockLook(&place, &all);
      } while (error == EAGAIN && ++rounds < ROUNDS);
   }
   if (error != 0 && error != EAGAIN) {
      errno = error;
      return -1;
   }
   const size_t found = all.size / sizeof(FileLockParty);
   if (found == 0) {
      return 0;
   }
   *parties = static_cast<FileLockParty *>(DynBuf_Detach(&all));
   const std::span<FileLockParty> sorted(*parties, found);
   std::sort(sorted.begin(), sorted.end(), FileLockComesFirst);
   FileLockFindHolders(sorted);
   return static_cast<int>(found);
}
