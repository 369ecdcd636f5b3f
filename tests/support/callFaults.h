#ifndef TESSEL_TESTS_SUPPORT_CALLFAULTS_H
#define TESSEL_TESTS_SUPPORT_CALLFAULTS_H

#include <cerrno>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

/* Failing calls of the system, on demand. In a test that links call-faults, the calls that its objects make of the
   functions in calls.inc pass through here (the linker's --wrap), under every sanitizer; those that shared
   libraries make among themselves do not. */

/* In the place of an error: the process is killed instead of making the call. */
constexpr int CALL_KILLS = -1;

/* One call that fails: the which-th, counted from 1, of this function, with this error; without a name, of all. "allocation"
   stands for malloc, calloc and realloc together, of which the which-th and all that follow fail. */
struct CallFault {
   std::string call;
   int which = 0;
   int error = 0;
};

/* What one process, and the children that it forks, calls between Arm and Disarm. The record is shared with them: a
   watch made before a fork tells the parent what the child did. One at a time. */
class CallWatch {
 public:
   explicit CallWatch(const CallFault &fault = {});
   ~CallWatch();
   CallWatch(const CallWatch &) = delete;
   CallWatch &operator=(const CallWatch &) = delete;

   void Arm();
   static void Disarm();

   /* Whether the fault has come about. */
   [[nodiscard]] bool Struck() const;

   /* What was called, in order; the first thousand. */
   [[nodiscard]] std::vector<std::string> Called() const;

   /* Every fault that could be had in what was watched. */
   [[nodiscard]] std::vector<CallFault> Faults() const;

   /* What was called while the effective user was root and the real one was not. */
   [[nodiscard]] std::set<std::string> CalledRaised() const;

   struct Record;

 private:
   Record *record_;
};

/* While it lives, the allocations of this process from the first-th on fail. */
class FailingAllocations {
 public:
   explicit FailingAllocations(int first = 1) : watch_({"allocation", first, ENOMEM})
   {
      watch_.Arm();
   }

 private:
   CallWatch watch_;
};

/* How many descriptors this process has open. */
size_t OpenDescriptors();

/* Whether memory was lost so far, where the sanitizer for that is built in. */
bool LeaksMemory();

struct CallName {
   const char *name;
   const char *safeBecause; /* Null: it can fail. */
};

/* The whole table. */
std::vector<CallName> AllCalls();

#endif
