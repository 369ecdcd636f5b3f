/* Running a small static program and waiting for its end: what closing the descriptors in the child adds to a start. The
   time is the processor's, of parent and child together. */

#include "bench/processorTime.h"
#include "lib/misc/host/hostinfo.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

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

/* The argument is the limit of open files. */
void Run(benchmark::State &state, bool (*run)())
{
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = static_cast<rlim_t>(state.range(0));
   if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      state.SkipWithError("so many open files are not allowed here");
      return;
   }
   for ([[maybe_unused]] auto pass : state) {
      const double before = ProcessorSeconds();
      if (!run()) {
         state.SkipWithError("the child failed");
         break;
      }
      state.SetIterationTime(ProcessorSeconds() - before);
   }
}

void Limits(benchmark::internal::Benchmark *bench)
{
   bench->Arg(256)->Arg(1024)->Arg(4096)->Arg(20000)->UseManualTime();
}

#define BENCHMARK_RUN(implementation, run)                                                                   \
   BENCHMARK_CAPTURE(Run, implementation, run)                                                               \
       ->Name("execute/Run/" implementation)                                                                 \
       ->Arg(20000)                                                                                          \
       ->UseManualTime()

BENCHMARK_RUN("tessel", RunWithExecute);
BENCHMARK_RUN("fork-close_range", RunWithFork<CloseRange>);
BENCHMARK_RUN("fork-close", RunWithFork<CloseOneByOne>);
BENCHMARK_RUN("posix_spawn", RunWithSpawn);
BENCHMARK_RUN("system", RunWithSystem);

BENCHMARK_CAPTURE(Run, tessel, RunWithExecute)->Name("execute-grows/DescriptorLimit/tessel")->Apply(Limits);
BENCHMARK_CAPTURE(Run, fork_close, RunWithFork<CloseOneByOne>)
    ->Name("execute-grows/DescriptorLimit/fork-close")
    ->Apply(Limits);

} // namespace
