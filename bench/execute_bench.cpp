/* Running a small static program and waiting for its end, with a limit of 20,000 open files: what closing the
   descriptors in the child adds to a start. */

#include "lib/misc/hostinfo.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr rlim_t OPEN_FILES = 20000;

char sName[] = "static-child";
char *const sArguments[] = {sName, nullptr};

bool Wait(pid_t child)
{
   int status = -1;
   return waitpid(child, &status, 0) == child && status == 0;
}

bool RunWithExecute()
{
   return Hostinfo_Execute(STATIC_CHILD, sArguments, true, nullptr, 0) == 0;
}

bool RunWithSpawn()
{
   pid_t child = -1;
   return posix_spawn(&child, STATIC_CHILD, nullptr, nullptr, sArguments, environ) == 0 && Wait(child);
}

bool RunWithSystem()
{
   return system(STATIC_CHILD) == 0;
}

template <void (*close)()> bool RunWithFork()
{
   const pid_t child = fork();
   if (child == 0) {
      close();
      execv(STATIC_CHILD, sArguments);
      _exit(127);
   }
   return Wait(child);
}

void CloseRange()
{
   close_range(3, ~0U, 0);
}

void CloseOneByOne()
{
   for (int fd = static_cast<int>(sysconf(_SC_OPEN_MAX)) - 1; fd >= 3; fd--) {
      close(fd);
   }
}

void Run(benchmark::State &state, bool (*run)())
{
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = OPEN_FILES;
   if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      state.SkipWithError("20,000 open files are not allowed here");
      return;
   }
   for ([[maybe_unused]] auto pass : state) {
      if (!run()) {
         state.SkipWithError("the child failed");
         break;
      }
   }
}

BENCHMARK_CAPTURE(Run, Hostinfo_Execute, RunWithExecute)->UseRealTime();
BENCHMARK_CAPTURE(Run, fork_close_range, RunWithFork<CloseRange>)->UseRealTime();
BENCHMARK_CAPTURE(Run, fork_walk, RunWithFork<CloseOneByOne>)->UseRealTime();
BENCHMARK_CAPTURE(Run, posix_spawn, RunWithSpawn)->UseRealTime();
BENCHMARK_CAPTURE(Run, system, RunWithSystem)->UseRealTime();

} // namespace
