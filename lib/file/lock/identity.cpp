#include "lib/file/lock/identity.h"

#include "base/errno.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "platform/processIdentity.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace {

/* Whom a thread found itself to be: asking the system is dear. */
thread_local bool sKnown;
thread_local FileLockIdentity sFound;

/* The child may even have the process id of whom it has this from, if that has ended since. */
void FileLockForgetIdentity()
{
   sKnown = false;
}

bool FileLockForgetsInChildren()
{
   static std::atomic<bool> does;

   does = does || pthread_atfork(nullptr, nullptr, FileLockForgetIdentity) == 0;
   return does;
}

/* The fields of a record are separated by blanks, and file names hold the identifier. Bytes above ASCII could be no
   valid UTF-8. */
char FileLockIdentityPlain(char byte)
{
   return byte > ' ' && byte < '\x7f' && byte != '/' ? byte : '_';
}

bool FileLockIdentityMachine(char machine[FILE_LOCK_MACHINE_SIZE])
{
   char given[256];

   if (!ProcessIdentity_MachineIdentifier(given, sizeof given)) {
      return false;
   }
   /* Of an identifier that is too long the end counts: there a group of processes is told from others. */
   const size_t length = strlen(given);
   const size_t kept = length < FILE_LOCK_MACHINE_SIZE ? length : FILE_LOCK_MACHINE_SIZE - 1;
   for (size_t i = 0; i < kept; i++) {
      machine[i] = FileLockIdentityPlain(given[length - kept + i]);
   }
   machine[kept] = '\0';
   if (kept == 0) {
      errno = ENODATA;
   }
   return kept != 0;
}

/* start 0: not given. */
bool FileLockParseExecution(std::string_view text, pid_t *pid, uint64_t *start)
{
   const char *const end = text.data() + text.size();

   *start = 0;
   std::from_chars_result result = std::from_chars(text.data(), end, *pid);
   if (result.ec != std::errc() || *pid <= 0) {
      return false;
   }
   if (result.ptr != end && *result.ptr == '-') {
      result = std::from_chars(result.ptr + 1, end, *start);
   }
   return result.ec == std::errc() && result.ptr == end;
}

} // namespace

bool FileLockIdentity_Get(FileLockIdentity *identity)
{
   uint64_t start;

   if (!sKnown) {
      const pid_t pid = getpid();
      if (!FileLockIdentityMachine(sFound.machine)) {
         return false;
      }
      if (ProcessIdentity_StartTime(pid, &start)) {
         Str_Sprintf(sFound.execution, sizeof sFound.execution, "%d-%llu", pid,
                     static_cast<unsigned long long>(start));
      } else {
         Str_Sprintf(sFound.execution, sizeof sFound.execution, "%d", pid);
      }
      sKnown = FileLockForgetsInChildren();
   }
   *identity = sFound;
   return true;
}

bool FileLockValidExecutionID(const char *execution)
{
   const KeptErrno kept;
   uint64_t recorded;
   uint64_t current;
   pid_t pid;

   if (!FileLockParseExecution(execution, &pid, &recorded)) {
      Log("FILE: %s parse error on '%s'. Assuming valid.\n", "FileLockValidExecutionID", execution);
      return true;
   }
   const bool known = ProcessIdentity_StartTime(pid, &current);
   return known ? recorded == 0 || current == recorded : errno != ESRCH;
}

void FileLockIdentity_Checksum(std::string_view path, char checksum[FILE_LOCK_CHECKSUM_SIZE])
{
   uint32_t hash = 5381;

   for (const char byte : path) {
      hash = hash * 33 + static_cast<uint32_t>(static_cast<signed char>(byte));
   }
   Str_Sprintf(checksum, FILE_LOCK_CHECKSUM_SIZE, "%u", hash);
}
