#ifndef TESSEL_TESTS_SUPPORT_SYSTEMCALLFAULTS_H
#define TESSEL_TESTS_SUPPORT_SYSTEMCALLFAULTS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/* Runs a piece of work in a process of its own and interferes with one of the system calls it makes. Needs no rights
   but to trace one's own child. */

enum class FaultKind : uint8_t {
   NONE,
   KILL,    /* The process is killed in place of the call. */
   FAIL,    /* The call fails with an error; a close closes all the same, as the kernel has it. */
   SHORTEN, /* A write takes half of what it is given. */
};

struct SystemCallFault {
   FaultKind kind = FaultKind::NONE;
   size_t call = 0; /* Which call, from 0: of all for KILL, of those that IsFileCall knows otherwise. */
   int error = 0;   /* For FAIL. */
};

struct FaultedRun {
   bool traced = false;     /* False: this system does not let a child be traced, and nothing ran. */
   std::vector<long> calls; /* The numbers of the calls so counted, the faulted one included. */
   int exitStatus = -1;     /* What the work returned, or -signal. */
};

/* setUp runs unwatched, then work, with the fault, then check, untraced again, with what work returned; its result is
   the exit status. */
FaultedRun RunWithFault(const SystemCallFault &fault, const std::function<void()> &setUp,
                        const std::function<bool()> &work, const std::function<int(bool)> &check);

/* Whether a call is one of those on files and their names, which can be made to fail without other harm. */
bool IsFileCall(long number);

std::string SystemCallName(long number);

/* Whether memory was lost so far, where the sanitizer for that is built in. */
bool LeaksMemory();

#endif
