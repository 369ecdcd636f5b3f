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
constexpr const char *TAG = "FileLockMemberValues";
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

/* Sets the values from the line. When the ticket was drawn is not ours to judge. */
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
   if (!FileLockParseNumber(member->fields[4], &member->microseconds)) {
      member->microseconds = 0;
   }
   return FileLockParseNumber(member->fields[2], &member->ticket) && (member->exclusive || type == "S"sv) &&
          checksum.starts_with(CHECKSUM_PREFIX);
}

/* A call that failed says something of the file, of this process, or of nothing but this moment. */
int FileLockFailure(const char *path, const char *call, bool report, FileLockMember *member)
{
   switch (errno) {
   case ENOENT:
   case ESTALE: /* The same, of a file on another machine. */
      member->state = FILE_LOCK_GONE;
      return 0;
   case EMFILE:
   case ENFILE:
   case ENOMEM:
   case EINTR:
   case EAGAIN:
      return errno;
   default:
      if (report) {
         Log("FILE: %s %s failure on '%s': %s\n", TAG, call, path, strerror(errno));
      }
      return 0;
   }
}

/* The content may be anyone's and anything. */
void FileLockReportFields(const char *path, const FileLockMember &member)
{
   Log("FILE: %s '%s' contents are:\n", TAG, path);
   for (size_t i = 0; i < std::min(member.fieldCount, FILE_LOCK_FIELDS_KEPT); i++) {
      const Owned<char> field(UnicodeEscapeBuffer(member.fields[i], -1, ENCODING_US_ASCII));
      Log("FILE: %s %s argv[%u]: '%s'\n", TAG, member.name, static_cast<unsigned>(i), field.get());
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

int FileLockMember_Read(const FileLockPlace &place, bool report, FileLockMember *member)
{
   const Owned<char> path = FileLockPlace_Path(place, member->name);
   constexpr auto required = static_cast<ssize_t>(FILE_LOCK_RECORD_SIZE);
   struct stat attributes;

   member->state = FILE_LOCK_UNREADABLE;
   const OwnedDescriptor file(openat(dirfd(place.stream.get()), member->name,
                                     O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
   if (file.get() == -1) {
      return FileLockFailure(path.get(), "open", report, member);
   }
   if (fstat(file.get(), &attributes) == -1) {
      return FileLockFailure(path.get(), "file size", report, member);
   }
   if (!S_ISREG(attributes.st_mode) || attributes.st_size != required) {
      if (report) {
         Log("FILE: %s file '%s': size %llu, required size %zd\n", TAG, path.get(),
             static_cast<unsigned long long>(attributes.st_size), required);
      }
      return 0;
   }
   const ssize_t length = read(file.get(), member->line, FILE_LOCK_RECORD_SIZE);
   if (length == -1) {
      return FileLockFailure(path.get(), "read", report, member);
   }
   if (length != required) {
      if (report) {
         Log("FILE: %s read length issue on '%s': %zd and %zd\n", TAG, path.get(), length, required);
      }
      return 0;
   }
   member->line[FILE_LOCK_RECORD_SIZE] = '\0';
   if (FileLockParse(member)) {
      member->state = FILE_LOCK_WAITS;
   } else if (report) {
      FileLockReportFields(path.get(), *member);
   }
   return 0;
}

void FileLockMember_Judge(const FileLockPlace &place, FileLockMember *member)
{
   if (member->state == FILE_LOCK_WAITS) {
      member->state = FileLockPlace_Judge(place, member->machine, member->execution, member->checksum);
   }
}

int FileLockMemberValues(const FileLockPlace &place, FileLockMember *member)
{
   const int error = FileLockMember_Read(place, true, member);

   if (error == 0 && member->state == FILE_LOCK_UNREADABLE) {
      Log("FILE: %s removing problematic lock file '%s'\n", TAG,
          FileLockPlace_Path(place, member->name).get());
   }
   return error;
}
