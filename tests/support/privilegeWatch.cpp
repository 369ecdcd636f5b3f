#include "tests/support/privilegeWatch.h"

#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

/* How the calls that are looked for are shown: what their arguments are, a letter each: d the folder that a path begins
   at, p a path, f a descriptor by what it leads to, a the address of a local socket, o a number in octal, -
   not shown. */
struct ShownCall {
   long number;
   const char *name;
   const char *arguments;
};

constexpr std::array SHOWN = {
    ShownCall{SYS_openat, "openat", "dpoo"},
    ShownCall{SYS_newfstatat, "stat", "dp"},
    ShownCall{SYS_getdents64, "getdents", "f"},
    ShownCall{SYS_close, "close", "f"},
    ShownCall{SYS_unlink, "unlink", "p"},
    ShownCall{SYS_unlinkat, "unlink", "dpo"},
    ShownCall{SYS_rmdir, "rmdir", "p"},
    ShownCall{SYS_connect, "connect", "-a"},
    ShownCall{SYS_execve, "execve", "p"},
    ShownCall{SYS_setresuid, "setresuid", ""},
    ShownCall{SYS_wait4, "wait", ""},
    ShownCall{SYS_clone, "fork", ""},
    ShownCall{SYS_setitimer, "setitimer", ""},
    ShownCall{SYS_rt_sigaction, "sigaction", ""},
    ShownCall{SYS_close_range, "close_range", ""},
    ShownCall{SYS_prlimit64, "prlimit", ""},
    ShownCall{SYS_fcntl, "fcntl", "f"},
    ShownCall{SYS_lstat, "lstat", "p"},
    ShownCall{SYS_fstat, "fstat", "f"},
    ShownCall{SYS_write, "write", "f"},
    ShownCall{SYS_getuid, "getuid", ""},
    ShownCall{SYS_geteuid, "geteuid", ""},
    ShownCall{SYS_exit_group, "exit", ""},
};

/* Of the C library and the sanitizers: for memory and around a fork. */
constexpr std::array UNSEEN = {
    SYS_brk,         SYS_mmap,           SYS_munmap, SYS_mprotect,        SYS_madvise,
    SYS_mremap,      SYS_rt_sigprocmask, SYS_gettid, SYS_set_robust_list, SYS_getpid,
    SYS_rt_sigreturn};

std::string Of(pid_t process, const std::string &file)
{
   return "/proc/" + std::to_string(process) + "/" + file;
}

std::string Memory(pid_t process, unsigned long address, size_t size)
{
   std::string bytes(size, '\0');
   const int file = open(Of(process, "mem").c_str(), O_RDONLY | O_CLOEXEC);
   const ssize_t length = pread(file, bytes.data(), size, static_cast<off_t>(address));
   close(file);
   bytes.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
   return bytes;
}

std::string Target(pid_t process, unsigned long descriptor)
{
   std::error_code none;
   return std::filesystem::read_symlink(Of(process, "fd/") + std::to_string(static_cast<int>(descriptor)),
                                        none);
}

/* A text in the memory of a process, up to its NUL. */
std::string Path(pid_t process, unsigned long address)
{
   return Memory(process, address, 4096).c_str();
}

std::string Shown(pid_t process, char kind, unsigned long value)
{
   std::ostringstream octal;
   switch (kind) {
   case 'p':
      return Path(process, value);
   case 'a':
      return Path(process, value + offsetof(struct sockaddr_un, sun_path));
   case 'd':
   case 'f':
      return Target(process, value);
   case 'o':
      octal << "0" << std::oct << value;
      return octal.str();
   default:
      return "";
   }
}

std::string Shown(pid_t process, const __ptrace_syscall_info &info)
{
   const auto number = static_cast<long>(info.entry.nr);
   const auto *const call = std::find_if(SHOWN.begin(), SHOWN.end(),
                                         [number](const ShownCall &shown) { return shown.number == number; });
   if (call == SHOWN.end()) {
      return "system call " + std::to_string(number);
   }
   std::string text = call->name;
   std::string folder;
   for (size_t i = 0; call->arguments[i] != '\0'; i++) {
      std::string argument = Shown(process, call->arguments[i], info.entry.args[i]);
      if (call->arguments[i] == 'd') {
         folder = std::exchange(argument, "");
      } else if (call->arguments[i] == 'p') {
         argument = argument.empty() ? folder : (std::filesystem::path(folder) / argument).string();
      }
      text += argument.empty() ? "" : " " + argument;
   }
   return text;
}

PrivilegeWatch::Facts FactsOf(pid_t process)
{
   PrivilegeWatch::Facts facts;
   std::istringstream status(ReadFile(Of(process, "status")));
   for (std::string line; std::getline(status, line);) {
      const size_t colon = line.find(':');
      facts[line.substr(0, colon)] = line.substr(std::min(line.size(), colon + 2));
   }
   for (const char *file : {"cmdline", "environ"}) {
      std::string text = ReadFile(Of(process, file));
      std::replace(text.begin(), text.end(), '\0', ';');
      facts[file] = text;
   }
   for (const auto &entry : std::filesystem::directory_iterator(Of(process, "fd"))) {
      facts["fd " + entry.path().filename().string()] = std::filesystem::read_symlink(entry.path());
   }
   return facts;
}

bool IsRaised(pid_t process)
{
   unsigned int real;
   unsigned int effective = 0;
   std::istringstream(FactsOf(process)["Uid"]) >> real >> effective;
   return effective == 0;
}

} // namespace

bool PrivilegeWatch::Ask()
{
   return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
}

int PrivilegeWatch::Follow(pid_t process)
{
   int status = -1;
   watched_ = process;
   waitpid(process, &status, 0);
   ptrace(PTRACE_SETOPTIONS, process, nullptr,
          PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
   pid_t stopped = process;
   while (stopped != process || WIFSTOPPED(status)) {
      if (WIFSTOPPED(status)) {
         Stopped(stopped, status);
      }
      stopped = waitpid(-1, &status, __WALL);
   }
   return status;
}

void PrivilegeWatch::Stopped(pid_t process, int status)
{
   const int signal = WSTOPSIG(status);
   if (signal == (SIGTRAP | 0x80)) {
      AtCall(process);
   }
   if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
      executed_.push_back(FactsOf(process));
      ptrace(PTRACE_DETACH, process, nullptr, nullptr);
      return;
   }
   const bool ours = signal == (SIGTRAP | 0x80) || signal == SIGTRAP || signal == SIGSTOP;
   ptrace(PTRACE_SYSCALL, process, nullptr, ours ? 0 : signal);
}

void PrivilegeWatch::AtCall(pid_t process)
{
   __ptrace_syscall_info info = {};
   ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info);
   if (info.op != PTRACE_SYSCALL_INFO_ENTRY) {
      return;
   }
   const bool unseen =
       std::find(UNSEEN.begin(), UNSEEN.end(), static_cast<long>(info.entry.nr)) != UNSEEN.end();
   const bool raised = IsRaised(process);
   lowered_ = lowered_ || !raised;
   if (lowered_ && raised && !unseen) {
      raised_.insert((process == watched_ ? "daemon: " : "child: ") + Shown(process, info));
   }
}

const std::set<std::string> &PrivilegeWatch::Raised() const
{
   return raised_;
}

const std::vector<PrivilegeWatch::Facts> &PrivilegeWatch::Executed() const
{
   return executed_;
}
