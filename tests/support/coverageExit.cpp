/* Part of every program that counts what it runs, so that processes that end otherwise than by exit write their counters
   too: the linker sends the calls of _exit here, and SIGTERM is caught. What a process did that was killed
   otherwise, or ended by a signal of its own, is not counted. */

#include <csignal>
#include <cstdlib>
#include <unistd.h>

extern "C" void __gcov_dump();
/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
extern "C" [[noreturn]] void __real__exit(int status);
extern "C" [[noreturn]] void __wrap__exit(int status);

void __wrap__exit(int status)
{
   close(STDIN_FILENO); /* The process may have run out of descriptors. */
   __gcov_dump();
   __real__exit(status);
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

namespace {

__attribute__((constructor)) void CatchTermination()
{
   signal(SIGTERM, [](int) {
      __gcov_dump();
      signal(SIGTERM, SIG_DFL);
      raise(SIGTERM);
   });
}

} // namespace
