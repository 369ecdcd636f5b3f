#include "lib/file/lock/member.h"

#include "base/owned.h"
#include "lib/file/lock/place.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::string_view_literals;

constexpr size_t DIGITS = 5;
constexpr size_t FIELDS = 6;
constexpr std::string_view CHECKSUM_PREFIX = "lc="sv;

/* Cuts the line in place. False if it holds what no line of ours does and no log should. */
bool FileLockSplit(FileLockMember *member)
{
   const std::string_view line = member->line;
   char *rest;

   member->fieldCount = 0;
   for (char *field = strtok_r(member->line, " ", &rest); field != nullptr;
        field = strtok_r(nullptr, " ", &rest)) {
      if (member->fieldCount < FILE_LOCK_FIELDS_KEPT) {
         member->fields[member->fieldCount] = field;
      }
      member->fieldCount++;
   }
   return std::none_of(line.begin(), line.end(), [](char byte) {
      const auto code = static_cast<unsigned char>(byte);
      return (code != 0 && code < ' ') || code == 0x7f;
   });
}

template <typename Number> bool FileLockParseNumber(std::string_view text, Number *number)
{
   const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), *number);
   return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

/* Sets the values from the line. */
bool FileLockParse(FileLockMember *member)
{
   if (!FileLockSplit(member) || member->fieldCount != FIELDS) {
      return false;
   }
   const std::string_view type = member->fields[3];
   const std::string_view checksum = member->fields[5];
   member->machine = member->fields[0];
   member->execution = member->fields[1];
   member->exclusive = type == "X"sv;
   member->checksum = checksum.data() + std::min(CHECKSUM_PREFIX.size(), checksum.size());
   return FileLockParseNumber(member->fields[2], &member->ticket) && (member->exclusive || type == "S"sv) &&
          FileLockParseNumber(member->fields[4], &member->microseconds) &&
          checksum.starts_with(CHECKSUM_PREFIX);
}

FileLockReading FileLockFailure(FileLockReadStep step, int error)
{
   switch (error) {
   case ENOENT:
   case ESTALE: /* The same, of a file on another machine. */
      return {.step = FILE_LOCK_READ_VANISHED, .error = error};
   case EMFILE:
   case ENFILE:
   case ENOMEM:
   case EINTR:
      return {.step = FILE_LOCK_READ_REFUSED, .error = error};
   default:
      return {.step = step, .error = error};
   }
}

/* The content may be anyone's and anything. */
void FileLockReportFields(const char *path, const char *name, const FileLockMember &member)
{
   Log("FILE: %s '%s' contents are:\n", "FileLockMemberValues", path);
   for (size_t i = 0; i < std::min(member.fieldCount, FILE_LOCK_FIELDS_KEPT); i++) {
      const Owned<char> field(UnicodeEscapeBuffer(member.fields[i], -1, ENCODING_US_ASCII));
      Log("FILE: %s %s argv[%u]: '%s'\n", "FileLockMemberValues", name, static_cast<unsigned>(i),
          field.get());
   }
}

void FileLockReport(const char *path, const char *name, const FileLockReading &reading,
                    const FileLockMember &member)
{
   static constexpr const char *tag = "FileLockMemberValues";
   const char *const reason = strerror(reading.error);

   switch (reading.step) {
   case FILE_LOCK_READ_OPEN:
      return Log("FILE: %s open failure on '%s': %s\n", tag, path, reason);
   case FILE_LOCK_READ_SIZE:
      return Log("FILE: %s file size failure on '%s': %s\n", tag, path, reason);
   case FILE_LOCK_READ_WRONG_SIZE:
      return Log("FILE: %s file '%s': size %llu, required size %zd\n", tag, path,
                 static_cast<unsigned long long>(reading.size), static_cast<ssize_t>(FILE_LOCK_RECORD_SIZE));
   case FILE_LOCK_READ_READ:
      return Log("FILE: %s read failure on '%s': %s\n", tag, path, reason);
   case FILE_LOCK_READ_LENGTH:
      return Log("FILE: %s read length issue on '%s': %zd and %zd\n", tag, path, reading.length,
                 static_cast<ssize_t>(FILE_LOCK_RECORD_SIZE));
   default:
      return FileLockReportFields(path, name, member);
   }
}

} // namespace

FileLockName FileLockMember_Name(FileLockEntry entry, uint32_t number)
{
   FileLockName name = {"?00000.lck"};

   name.text[0] = entry;
   for (size_t digit = DIGITS; digit > 0; digit--, number /= 10) {
      name.text[digit] = static_cast<char>('0' + number % 10);
   }
   return name;
}

bool FileLockMember_ParseName(const char *name, FileLockEntry *entry, uint32_t *number)
{
   const std::string_view text = name;

   if (text.size() < 1 + DIGITS || !text.ends_with(FILE_LOCK_SUFFIX) ||
       "MDE"sv.find(text[0]) == std::string_view::npos ||
       !FileLockParseNumber(text.substr(1, DIGITS), number)) {
      return false;
   }
   *entry = static_cast<FileLockEntry>(text[0]);
   return true;
}

void FileLockMember_Compose(char record[FILE_LOCK_RECORD_SIZE], const FileLockIdentity &owner,
                            uint32_t ticket, bool exclusive, uint64_t microseconds, const char *checksum)
{
   memset(record, 0, FILE_LOCK_RECORD_SIZE);
   Str_Sprintf(record, FILE_LOCK_RECORD_SIZE, "%s %s %u %s %llu lc=%s", owner.machine, owner.execution,
               ticket, exclusive ? "X" : "S", static_cast<unsigned long long>(microseconds), checksum);
}

FileLockReading FileLockMember_Read(const FileLockPlace &place, const char *name, FileLockMember *member)
{
   struct stat attributes;

   const OwnedDescriptor file(
       openat(dirfd(place.stream.get()), name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
   if (file.get() == -1) {
      return FileLockFailure(FILE_LOCK_READ_OPEN, errno);
   }
   if (fstat(file.get(), &attributes) == -1) {
      return FileLockFailure(FILE_LOCK_READ_SIZE, errno);
   }
   if (!S_ISREG(attributes.st_mode) || attributes.st_size != FILE_LOCK_RECORD_SIZE) {
      return {.step = FILE_LOCK_READ_WRONG_SIZE, .size = static_cast<uint64_t>(attributes.st_size)};
   }
   const ssize_t length = read(file.get(), member->line, FILE_LOCK_RECORD_SIZE);
   if (length == -1) {
      return FileLockFailure(FILE_LOCK_READ_READ, errno);
   }
   if (length != FILE_LOCK_RECORD_SIZE) {
      return {.step = FILE_LOCK_READ_LENGTH, .length = length};
   }
   member->line[FILE_LOCK_RECORD_SIZE] = '\0';
   return {.step = FileLockParse(member) ? FILE_LOCK_READ_DONE : FILE_LOCK_READ_FIELDS};
}

bool FileLockMember_IsProblematic(const FileLockReading &reading)
{
   return reading.step >= FILE_LOCK_READ_OPEN;
}

FileLockReading FileLockMemberValues(const FileLockPlace &place, const char *name, FileLockMember *member)
{
   const FileLockReading reading = FileLockMember_Read(place, name, member);

   if (FileLockMember_IsProblematic(reading)) {
      const Owned<char> path = FileLockPlace_Path(place, name);
      FileLockReport(path.get(), name, reading, *member);
      Log("FILE: %s removing problematic lock file '%s'\n", "FileLockMemberValues", path.get());
   }
   return reading;
}
