#include "platform/processIdentity.h"

#include "base/owned.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string_view>

namespace {

using namespace std::string_view_literals;

/* Of /proc/PID/stat, counted from the first field after the command's name. */
constexpr int FIELD_THREADS = 17;
constexpr int FIELD_START = 19;

/* What keeps groups of processes apart: who sees other ids, or is told other times since the start. With those that the
   system starts with (PROC_PID_INIT_INO and PROC_TIME_INIT_INO in include/linux/proc_ns.h). */
struct ProcessIdentityNamespace {
   const char *path;
   std::string_view first;
};

constexpr ProcessIdentityNamespace NAMESPACES[] = {
    {"/proc/self/ns/pid", "pid:[4026531836]"sv},
    {"/proc/self/ns/time", "time:[4026531834]"sv},
};

/* The file's text, at most size bytes of it, without the line end; empty with errno set if there is none. */
std::string_view ProcessIdentityRead(const char *path, char *buffer, size_t size)
{
   const OwnedDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
   const ssize_t length = file.get() == -1 ? -1 : read(file.get(), buffer, size);
   if (length == 0) {
      errno = ENODATA;
   }
   const std::string_view text(buffer, length > 0 ? static_cast<size_t>(length) : 0);
   return text.substr(0, text.find('\n'));
}

std::string_view ProcessIdentityField(std::string_view fields, int index)
{
   for (; index > 0; index--) {
      const size_t blank = fields.find(' ');
      if (blank == std::string_view::npos) {
         return {};
      }
      fields.remove_prefix(blank + 1);
   }
   return fields.substr(0, fields.find(' '));
}

bool ProcessIdentityNumber(std::string_view text, uint64_t *number)
{
   const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), *number);
   return !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size();
}

/* The kernel counts from its own start. The id of this run of it (FNV-1a, 62 bits) sets the origin, so that a process
   of an earlier run is never taken for one of this; the wall clock would not do, as it can be set. */
bool ProcessIdentityOrigin(uint64_t *origin)
{
   static std::atomic<uint64_t> known;
   char buffer[64];
   uint64_t hash = 0xcbf29ce484222325;

   *origin = known;
   if (*origin != 0) {
      return true;
   }
   const std::string_view id = ProcessIdentityRead("/proc/sys/kernel/random/boot_id", buffer, sizeof buffer);
   for (const char byte : id) {
      hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
   }
   *origin = (hash >> 2) + 1;
   known = id.empty() ? 0 : *origin;
   return !id.empty();
}

/* Copies with a NUL; false with ERANGE. */
bool ProcessIdentityCopy(std::string_view text, char *buffer, size_t size)
{
   if (text.size() >= size) {
      errno = ERANGE;
      return false;
   }
   memcpy(buffer, text.data(), text.size());
   buffer[text.size()] = '\0';
   return true;
}

} // namespace

bool ProcessIdentity_StartTime(pid_t pid, uint64_t *microseconds)
{
   char path[32] = "/proc/";
   char buffer[1024];
   uint64_t origin;
   uint64_t threads;
   uint64_t ticks;

   char *const end = std::to_chars(path + strlen(path), path + sizeof path - sizeof "/stat", pid).ptr;
   memcpy(end, "/stat", sizeof "/stat");
   const std::string_view line = ProcessIdentityRead(path, buffer, sizeof buffer);
   if (line.empty()) {
      /* /proc may hide other users' processes: that a file is not there proves nothing. */
      const int error = errno;
      errno = kill(pid, 0) == -1 && errno == ESRCH ? ESRCH : error == ENOENT ? EACCES : error;
      return false;
   }
   /* The name, in parentheses, may hold anything, blanks and parentheses too. */
   const size_t name = line.rfind(") ");
   const std::string_view fields = name != std::string_view::npos ? line.substr(name + 2) : ""sv;
   if (!ProcessIdentityNumber(ProcessIdentityField(fields, FIELD_THREADS), &threads) ||
       !ProcessIdentityNumber(ProcessIdentityField(fields, FIELD_START), &ticks)) {
      errno = EPROTO;
      return false;
   }
   /* While other threads go on, the process does, though its first thread has ended. */
   if ((fields[0] == 'Z' || fields[0] == 'X') && threads <= 1) {
      errno = ESRCH;
      return false;
   }
   if (!ProcessIdentityOrigin(&origin)) {
      return false;
   }
   *microseconds = origin + ticks * (1000000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
   return true;
}

bool ProcessIdentity_MachineIdentifier(char *buffer, size_t size)
{
   char name[256];

   std::string_view machine = ProcessIdentityRead("/etc/machine-id", name, sizeof name);
   if (machine.empty()) {
      if (gethostname(name, sizeof name) == -1) {
         return false;
      }
      machine = {name, strnlen(name, sizeof name)};
   }
   if (!ProcessIdentityCopy(machine, buffer, size)) {
      return false;
   }
   size_t used = machine.size();
   for (const ProcessIdentityNamespace &space : NAMESPACES) {
      char inner[64];
      const ssize_t length = readlink(space.path, inner, sizeof inner);
      const std::string_view text(inner, length > 0 ? static_cast<size_t>(length) : 0);
      if (text == space.first) {
         continue;
      }
      if (!ProcessIdentityCopy(text, buffer + used, size - used)) {
         return false;
      }
      used += text.size();
   }
   return true;
}
