#include "fuzz/support/fuzz.h"
#include "fuzz/support/scratchFolder.h"
#include "lib/file/lock/member.h"
#include "lib/file/lock/number.h"

#include <algorithm>
#include <array>
#include <cstring>

/* What anyone may leave in a lock directory. What the module makes reads back the same. Of anything else: either it is taken,
   and what was read can be composed to the same record, or it is reported in plain text; a name that is taken
   is that of its letter and number; a marker that nobody can be told from blocks; the owner of one that says
   who he is keeps his name. */

namespace {

const ScratchFolder &Folder()
{
   static const ScratchFolder folder;
   return folder;
}

/* The lock directory, open. */
FileLockPlace Place()
{
   FileLockPlace place;
   REQUIRE(FileLockPlace_Find(&place, Folder().Path("lock").c_str()) == 0);
   static const bool made =
       FileLockPlace_Make(place) == 0 && mkdir(Folder().Path("lock.lck/D00007.lck").c_str(), 0700) == 0;
   REQUIRE(made && FileLockPlace_Open(&place) == 0);
   REQUIRE(FileLockIdentity_Get(&place.self));
   return place;
}

void CheckName(FuzzedDataProvider *input)
{
   const auto letter = input->PickValueInArray({FILE_LOCK_ENTRY, FILE_LOCK_WRITING, FILE_LOCK_MEMBER});
   const auto chosen = input->ConsumeIntegral<uint16_t>();
   FileLockEntry entry = FILE_LOCK_ENTRY;
   uint32_t number = 0;
   REQUIRE(FileLockMember_ParseName(FileLockMember_Name(letter, chosen).text, &entry, &number));
   REQUIRE(entry == letter && number == chosen);
   const std::string name = RestAsString(input);
   if (FileLockMember_ParseName(name.c_str(), &entry, &number)) {
      REQUIRE_SAME(name.substr(0, 6), std::string(FileLockMember_Name(entry, number).text).substr(0, 6));
      REQUIRE(name.ends_with(".lck"));
   }
}

/* A text as an identity has it, within its room. */
template <size_t room> void Fill(FuzzedDataProvider *input, char (&field)[room])
{
   std::string text = "_" + input->ConsumeRandomLengthString(room - 2);
   for (char &c : text) {
      c = c > ' ' && c < '\x7F' && c != '/' ? c : '_';
   }
   memcpy(field, text.c_str(), text.size() + 1);
}

void CheckRead(const FileLockPlace &place, const std::string &record)
{
   WriteFile(Folder().Path("lock.lck/M00001.lck"), record);
   FileLockMember member("M00001.lck", 1);
   const size_t logged = Fuzz_LogCount();
   REQUIRE(FileLockMemberValues(place, &member) == 0);
   REQUIRE((member.state == FILE_LOCK_UNREADABLE) == (Fuzz_LogCount() != logged));
   if (member.state == FILE_LOCK_UNREADABLE) {
      return;
   }
   const bool fits = strlen(member.machine) < FILE_LOCK_MACHINE_SIZE &&
                     strlen(member.execution) < FILE_LOCK_EXECUTION_SIZE && strlen(member.checksum) < 100;
   REQUIRE(member.state == FILE_LOCK_WAITS && record.size() == FILE_LOCK_RECORD_SIZE);
   if (!fits) {
      return;
   }
   FileLockIdentity owner = {};
   strcpy(owner.machine, member.machine);
   strcpy(owner.execution, member.execution);
   std::string again(FILE_LOCK_RECORD_SIZE, '#');
   FileLockMember_Compose(again.data(), owner, member.ticket, member.exclusive, member.microseconds,
                          member.checksum);
   /* Blanks, zeros before a number and a time that is none are not kept. */
   WriteFile(Folder().Path("lock.lck/M00001.lck"), again);
   FileLockMember second("M00001.lck", 1);
   REQUIRE(FileLockMemberValues(place, &second) == 0 && second.state == FILE_LOCK_WAITS);
   REQUIRE_SAME(second.machine, owner.machine);
   REQUIRE_SAME(second.execution, owner.execution);
   REQUIRE_SAME(second.checksum, member.checksum);
   REQUIRE(second.ticket == member.ticket && second.exclusive == member.exclusive &&
           second.microseconds == member.microseconds);
}

void CheckRecord(FuzzedDataProvider *input)
{
   static const FileLockPlace place = Place();
   std::string record(FILE_LOCK_RECORD_SIZE, '#');
   if (input->ConsumeBool()) {
      FileLockIdentity owner;
      Fill(input, owner.machine);
      Fill(input, owner.execution);
      FileLockMember_Compose(record.data(), owner, input->ConsumeIntegral<uint32_t>(), input->ConsumeBool(),
                             input->ConsumeIntegral<uint64_t>(), "12");
      while (input->remaining_bytes() > 0) {
         record[input->ConsumeIntegralInRange<size_t>(0, 160)] = input->ConsumeIntegral<char>();
      }
   } else {
      const bool rightSize = input->ConsumeIntegralInRange(0, 7) != 0;
      record = input->ConsumeRemainingBytesAsString();
      record.resize(rightSize ? FILE_LOCK_RECORD_SIZE : record.size());
   }
   CheckRead(place, record);
}

/* The holder of a number, told by the name of the one marker in its entry directory. */
void CheckMarker(FuzzedDataProvider *input)
{
   static const FileLockPlace place = Place();
   const bool here = input->ConsumeBool();
   std::string name = input->ConsumeRandomLengthString(200);
   name += here ? std::string(".") + place.checksum + "." + place.self.machine : "";
   std::erase_if(name, [](char c) { return c == '\0' || c == '/'; });
   if (name.empty() || name == "." || name == ".." || name.size() > 255) {
      return;
   }
   const std::string marker = Folder().Path("lock.lck/D00007.lck/" + name);
   WriteFile(marker, "");
   const FileLockHolder holder = FileLockNumber_Holder(place, 7);
   REQUIRE(unlink(marker.c_str()) == 0);
   REQUIRE(holder.state >= FILE_LOCK_STALE && holder.state <= FILE_LOCK_CHOOSES);
   const std::string machine = holder.who.machine;
   REQUIRE(machine.empty() ? holder.state == FILE_LOCK_CHOOSES && holder.exclusive
                           : name.ends_with("." + machine));
   REQUIRE(name.starts_with(holder.who.execution));
   REQUIRE(holder.state != FILE_LOCK_STALE || machine == place.self.machine);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const auto check = input.PickValueInArray({CheckName, CheckRecord, CheckRecord, CheckMarker});
   check(&input);
   return 0;
}
