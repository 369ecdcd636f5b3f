#include "tests/support/systemCallFaults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

/* The sanitizer's name. NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c) */
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

/* Options that no kernel knows: calls that do nothing but show the tracer where the work begins and ends. */
constexpr unsigned long BEGIN_MARK = 0x7E55E1;
constexpr unsigned long END_MARK = 0x7E55E2;

struct NamedCall {
   long number;
   const char *name;
};

constexpr std::array FILE_CALLS = {
    NamedCall{SYS_openat, "openat"},       NamedCall{SYS_close, "close"},
    NamedCall{SYS_newfstatat, "fstatat"},  NamedCall{SYS_fstat, "fstat"},
    NamedCall{SYS_lseek, "lseek"},         NamedCall{SYS_write, "write"},
    NamedCall{SYS_ftruncate, "ftruncate"}, NamedCall{SYS_fsync, "fsync"},
    NamedCall{SYS_fchmod, "fchmod"},       NamedCall{SYS_fchown, "fchown"},
    NamedCall{SYS_rename, "rename"},       NamedCall{SYS_unlink, "unlink"},
    NamedCall{SYS_fcntl, "fcntl"},         NamedCall{SYS_readlink, "readlink"},
};

#ifdef __x86_64__

void Mark(unsigned long mark)
{
   prctl(static_cast<int>(mark), 0, 0, 0, 0);
}

[[noreturn]] void RunChild(const std::function<void()> &setUp, const std::function<bool()> &work,
                           const std::function<int(bool)> &check)
{
   setUp();
   if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1) {
      _exit(EXIT_FAILURE);
   }
   raise(SIGSTOP);
   Mark(BEGIN_MARK);
   const bool result = work();
   Mark(END_MARK);
   _exit(check(result));
}

class Tracer {
 public:
   Tracer(pid_t child, const SystemCallFault &fault) : child_(child), fault_(fault)
   {
   }

   FaultedRun Run()
   {
      int status = 0;
      waitpid(child_, &status, 0);
      if (!WIFSTOPPED(status)) {
         return run_;
      }
      run_.traced = true;
      ptrace(PTRACE_SETOPTIONS, child_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
      while (WIFSTOPPED(status)) {
         const bool over = WSTOPSIG(status) == (SIGTRAP | 0x80) && AtStop();
         /* Neither works on a child that was just killed, which the wait then tells. */
         ptrace(over ? PTRACE_DETACH : PTRACE_SYSCALL, child_, nullptr, nullptr);
         waitpid(child_, &status, 0);
      }
      run_.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      return run_;
   }

 private:
   /* True: the work is over. */
   bool AtStop()
   {
      ptrace(PTRACE_GETREGS, child_, nullptr, &registers_);
      entering_ = !entering_;
      if (!entering_) {
         AtReturn();
         return false;
      }
      if (registers_.orig_rax == SYS_prctl && registers_.rdi == END_MARK) {
         return true;
      }
      if (registers_.orig_rax == SYS_prctl && registers_.rdi == BEGIN_MARK) {
         watching_ = true;
      } else if (watching_) {
         AtCall();
      }
      return false;
   }

   void AtCall()
   {
      const auto number = static_cast<long>(registers_.orig_rax);
      /* What the allocator and the sanitizers ask for varies from run to run. */
      if (fault_.kind != FaultKind::KILL && !IsFileCall(number)) {
         return;
      }
      run_.calls.push_back(number);
      if (run_.calls.size() != fault_.call + 1) {
         return;
      }
      switch (fault_.kind) {
      case FaultKind::KILL:
         kill(child_, SIGKILL);
         break;
      case FaultKind::FAIL:
         failing_ = true;
         if (registers_.orig_rax != SYS_close) {
            registers_.orig_rax = static_cast<unsigned long long>(-1);
         }
         break;
      case FaultKind::SHORTEN:
         registers_.rdx = registers_.orig_rax == SYS_write ? (registers_.rdx + 1) / 2 : registers_.rdx;
         break;
      case FaultKind::NONE:
         break;
      }
      ptrace(PTRACE_SETREGS, child_, nullptr, &registers_);
   }

   void AtReturn()
   {
      if (failing_) {
         failing_ = false;
         registers_.rax = static_cast<unsigned long long>(-static_cast<long long>(fault_.error));
         ptrace(PTRACE_SETREGS, child_, nullptr, &registers_);
      }
   }

   pid_t child_;
   SystemCallFault fault_;
   FaultedRun run_;
   user_regs_struct registers_ = {};
   bool entering_ = false;
   bool watching_ = false;
   bool failing_ = false;
};

#endif

} // namespace

FaultedRun RunWithFault(const SystemCallFault &fault, const std::function<void()> &setUp,
                        const std::function<bool()> &work, const std::function<int(bool)> &check)
{
#ifdef __x86_64__
   const pid_t child = fork();
   if (child == 0) {
      RunChild(setUp, work, check);
   }
   return Tracer(child, fault).Run();
#else
   return {};
#endif
}

bool IsFileCall(long number)
{
   return std::any_of(FILE_CALLS.begin(), FILE_CALLS.end(),
                      [number](const NamedCall &call) { return call.number == number; });
}

std::string SystemCallName(long number)
{
   for (const NamedCall &call : FILE_CALLS) {
      if (call.number == number) {
         return call.name;
      }
   }
   return std::to_string(number);
}

bool LeaksMemory()
{
   return __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
}
