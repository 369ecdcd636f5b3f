#include "fuzz/support/fuzz.h"
#include "fuzz/support/scratchFolder.h"
#include "lib/file/lock/member.h"
#include "lib/file/lock/number.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <vector>

/* What anyone may leave in a lock directory: names, records and markers are taken exactly where a plain reading of their
   form takes them, with the values that it gives; a record that is at fault is reported in plain text, and no
   other is. What the module itself makes reads back the same. */

namespace {

const ScratchFolder &Folder()
{
   static const ScratchFolder folder;
   return folder;
}

template <typename Number> std::optional<Number> ParseNumber(std::string_view text)
{
   Number number = 0;
   const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
   const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
   return digits && result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

/* Without the empty ones. */
std::vector<std::string> Split(std::string_view text, char separator)
{
   std::vector<std::string> fields;
   while (!text.empty()) {
      const size_t length = std::min(text.find(separator), text.size());
      if (length > 0) {
         fields.emplace_back(text.substr(0, length));
      }
      text.remove_prefix(std::min(length + 1, text.size()));
   }
   return fields;
}

void CheckName(FuzzedDataProvider *input)
{
   const auto letter = input->PickValueInArray({FILE_LOCK_ENTRY, FILE_LOCK_WRITING, FILE_LOCK_MEMBER});
   const auto chosen = input->ConsumeIntegral<uint16_t>();
   FileLockEntry entry = FILE_LOCK_ENTRY;
   uint32_t number = 0;
   const FileLockName own = FileLockMember_Name(letter, chosen);
   REQUIRE(FileLockMember_ParseName(own.text, &entry, &number) && entry == letter && number == chosen);

   const std::string name = RestAsString(input);
   const bool valid = name.size() > 5 && std::string_view("MDE").find(name[0]) != std::string_view::npos &&
                      ParseNumber<uint32_t>(std::string_view(name).substr(1, 5)) && name.ends_with(".lck");
   REQUIRE(FileLockMember_ParseName(name.c_str(), &entry, &number) == valid);
   if (valid) {
      REQUIRE(entry == name[0] && number == ParseNumber<uint32_t>(std::string_view(name).substr(1, 5)));
   }
}

bool IsControl(char c)
{
   return (c > '\0' && c < ' ') || c == '\x7F';
}

/* The fields of a record, or nothing if it is at fault. */
std::optional<std::vector<std::string>> Fields(const std::string &record)
{
   const std::string line = AsString(record);
   std::vector<std::string> fields = Split(line, ' ');
   if (std::any_of(line.begin(), line.end(), IsControl) || fields.size() != 6 ||
       !ParseNumber<uint32_t>(fields[2]) || (fields[3] != "X" && fields[3] != "S") ||
       !ParseNumber<uint64_t>(fields[4]) || !fields[5].starts_with("lc=")) {
      return std::nullopt;
   }
   return fields;
}

/* The lock directory, open. */
FileLockPlace Place()
{
   FileLockPlace place;
   place.directory.reset(strdup(Folder().Path("lock.lck").c_str()));
   static const bool made = mkdir(place.directory.get(), 0700) == 0 &&
                            mkdir(Folder().Path("lock.lck/D00007.lck").c_str(), 0700) == 0;
   REQUIRE(made && FileLockPlace_Open(&place) == 0);
   return place;
}

void CheckRead(const std::string &record)
{
   static const FileLockPlace place = Place();
   WriteFile(Folder().Path("lock.lck/M00001.lck"), record);
   FileLockMember member;
   const size_t logged = Fuzz_LogCount();
   const FileLockReading reading = FileLockMemberValues(place, "M00001.lck", &member);
   const size_t reports = Fuzz_LogCount() - logged;
   REQUIRE(FileLockMember_IsProblematic(reading) == (reports != 0));
   REQUIRE(FileLockMember_IsProblematic(reading) == (reading.step != FILE_LOCK_READ_DONE));
   if (record.size() != FILE_LOCK_RECORD_SIZE) {
      REQUIRE(reading.step == FILE_LOCK_READ_WRONG_SIZE && reading.size == record.size());
      return;
   }
   const std::optional<std::vector<std::string>> fields = Fields(record);
   REQUIRE(reading.step == (fields ? FILE_LOCK_READ_DONE : FILE_LOCK_READ_FIELDS));
   if (!fields) {
      const size_t shown = std::min(Split(AsString(record), ' ').size(), FILE_LOCK_FIELDS_KEPT);
      REQUIRE(reports == shown + 2);
      return;
   }
   REQUIRE_SAME(member.machine, (*fields)[0]);
   REQUIRE_SAME(member.execution, (*fields)[1]);
   REQUIRE(member.ticket == ParseNumber<uint32_t>((*fields)[2]) && member.exclusive == ((*fields)[3] == "X"));
   REQUIRE(member.microseconds == ParseNumber<uint64_t>((*fields)[4]));
   REQUIRE_SAME(member.checksum, (*fields)[5].substr(3));
}

/* A text as an identity has it, within its room. */
template <size_t room> void Fill(FuzzedDataProvider *input, char (&field)[room])
{
   std::string text = input->ConsumeRandomLengthString(room - 1);
   for (char &c : text) {
      c = c > ' ' && c < '\x7F' && c != '/' ? c : '_';
   }
   text = text.empty() ? "_" : text;
   memcpy(field, text.c_str(), text.size() + 1);
}

std::string Composed(FuzzedDataProvider *input)
{
   FileLockIdentity owner;
   Fill(input, owner.machine);
   Fill(input, owner.execution);
   std::array<char, FILE_LOCK_CHECKSUM_SIZE> checksum;
   FileLockIdentity_Checksum(input->ConsumeRandomLengthString(20), checksum.data());
   std::string record(FILE_LOCK_RECORD_SIZE, '#');
   FileLockMember_Compose(record.data(), owner, input->ConsumeIntegral<uint32_t>(), input->ConsumeBool(),
                          input->ConsumeIntegral<uint64_t>(), checksum.data());
   const std::vector<std::string> fields = Fields(record).value();
   REQUIRE_SAME(fields[0], owner.machine);
   REQUIRE_SAME(fields[1], owner.execution);
   REQUIRE_SAME(fields[5], std::string("lc=") + checksum.data());
   return record;
}

void CheckRecord(FuzzedDataProvider *input)
{
   std::string record = input->ConsumeBool() ? Composed(input) : "";
   if (record.empty()) {
      const bool rightSize = input->ConsumeIntegralInRange(0, 7) != 0;
      record = input->ConsumeRemainingBytesAsString();
      record.resize(rightSize ? FILE_LOCK_RECORD_SIZE : record.size());
   } else {
      while (input->remaining_bytes() > 0) {
         record[input->ConsumeIntegralInRange<size_t>(0, 160)] = input->ConsumeIntegral<char>();
      }
   }
   CheckRead(record);
}

void CheckExecution(FuzzedDataProvider *input)
{
   const std::string text = RestAsString(input);
   const std::string_view view = text;
   const size_t dash = view.find('-');
   const std::optional<int> pid = ParseNumber<int>(view.substr(0, dash));
   const bool parsed =
       pid && *pid > 0 && (dash == std::string_view::npos || ParseNumber<uint64_t>(view.substr(dash + 1)));
   const size_t logged = Fuzz_LogCount();
   const bool valid = FileLockValidExecutionID(text.c_str());
   REQUIRE(Fuzz_LogCount() - logged == (parsed ? 0 : 1));
   REQUIRE(parsed || valid);
}

FileLockPlace OwnPlace(FuzzedDataProvider *input)
{
   FileLockPlace place = Place();
   Fill(input, place.self.machine);
   Fill(input, place.self.execution);
   FileLockIdentity_Checksum(place.directory.get(), place.checksum);
   return place;
}

/* The holder of a number, told by the name of the one marker in its entry directory. */
void CheckMarker(FuzzedDataProvider *input)
{
   FileLockPlace place = OwnPlace(input);
   const bool sameMachine = input->ConsumeBool();
   std::string name = input->ConsumeRandomLengthString(200);
   name += sameMachine ? std::string(".") + place.checksum + "." + place.self.machine : "";
   std::erase_if(name, [](char c) { return c == '\0' || c == '/'; });
   if (name.empty() || name == "." || name == ".." || name.size() > 255) {
      return;
   }
   const std::string marker = Folder().Path("lock.lck/D00007.lck/" + name);
   WriteFile(marker, "");
   const FileLockHolder holder = FileLockNumber_Holder(place, 7);
   REQUIRE(unlink(marker.c_str()) == 0);

   std::vector<std::string> fields;
   std::string rest = name;
   while (fields.size() < 3) {
      const size_t dot = rest.find('.');
      fields.push_back(rest.substr(0, dot));
      rest = dot == std::string::npos ? "" : rest.substr(dot + 1);
   }
   if (rest.empty() || rest.size() >= FILE_LOCK_MACHINE_SIZE ||
       fields[0].size() >= FILE_LOCK_EXECUTION_SIZE) {
      REQUIRE(holder.owner == FILE_LOCK_REMOTE && holder.exclusive);
      return;
   }
   REQUIRE_SAME(holder.who.machine, rest);
   REQUIRE_SAME(holder.who.execution, fields[0]);
   REQUIRE(holder.exclusive == (fields[1] != "S"));
   const bool here = fields[2] == place.checksum;
   if (rest != place.self.machine) {
      REQUIRE(holder.owner == (here ? FILE_LOCK_REMOTE : FILE_LOCK_ELSEWHERE));
   } else {
      REQUIRE(holder.owner == FILE_LOCK_ENDED ||
              holder.owner == (here ? FILE_LOCK_RUNNING : FILE_LOCK_ELSEWHERE));
   }
}

void CheckChecksum(FuzzedDataProvider *input)
{
   const std::string path = input->ConsumeRemainingBytesAsString();
   uint32_t hash = 5381;
   for (const char c : path) {
      const auto byte = static_cast<unsigned char>(c);
      hash = hash * 33 + (byte < 0x80 ? byte : byte - 256U);
   }
   std::array<char, FILE_LOCK_CHECKSUM_SIZE> checksum;
   FileLockIdentity_Checksum(path, checksum.data());
   REQUIRE_SAME(checksum.data(), std::to_string(hash));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const auto check = input.PickValueInArray(
       {CheckName, CheckRecord, CheckRecord, CheckRecord, CheckExecution, CheckMarker, CheckChecksum});
   check(&input);
   return 0;
}
