#ifndef TESSEL_TESTS_SUPPORT_CALLFAULTS_H
#define TESSEL_TESTS_SUPPORT_CALLFAULTS_H

#include <cerrno>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/* Calls of the system, disturbed on demand: for the tests in tests/linux, and the only way in which they do it. In a
   program that links call-faults, the calls that its objects make of the functions in calls.inc pass through
   here (the linker's --wrap), under every sanitizer; those that shared libraries make among themselves do
   not.

   Have one fail:   CallWatch watch({"write", 2, EIO});
   Have all fail in turn:
                    CallWatch usual; usual.Arm(); work(); CallWatch::Disarm();
                    for (const CallFault &fault : usual.Faults()) { CallWatch watch(fault); watch.Arm();
   work(); ... } Act before one, or instead of it: CallWatch watch({"rename"}, [](Call &call) { if
   (call.number == 2) { call.Fail(EIO); } }); Bend one:        CallWatch watch({"arc4random_uniform"}, [](Call
   &call) { call.arguments[0] = 24; }); Change what it gives: CallWatch watch({"readdir"}, [](Call &call) { if
   (auto *entry = reinterpret_cast<dirent *>(call.Make())) { entry->d_type = DT_UNKNOWN; } }); */

/* In the place of an error: the process is killed instead of making the call. */
constexpr int CALL_KILLS = -1;

/* One call that fails: the which-th, counted from 1, of this function, with this error; without a name, of all. "allocation"
   stands for malloc, calloc and realloc together, of which the which-th and all that follow fail. */
struct CallFault {
   std::string call;
   int which = 0;
   int error = 0;
};

/* One call on its way to the system. */
struct Call {
   std::string_view name;
   size_t number;              /* From 1, among the calls that the action is given. */
   long *arguments;            /* The six that can stand in registers; it is made with what is left here. */
   std::optional<long> result; /* Set: it is not made, any more, and gives this. */
   const struct CallRow *row;

   /* Makes it now, and gives the result too. */
   long Make();

   /* It gives what it gives when it fails with this error. */
   void Fail(int error);
};

using CallAction = std::function<void(Call &call)>;

/* What one process, and the children that it forks, calls between Arm and Disarm. The record is shared with them: a
   watch made before a fork tells the parent what the child did. One at a time, on one thread. */
class CallWatch {
 public:
   explicit CallWatch(const CallFault &fault = {});

   /* Armed at once. The action is given each call of these functions, before it is made (none named: of all that can fail). What
      it calls itself goes straight through. */
   CallWatch(const std::set<std::string> &names, CallAction action);
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
   CallAction action_;
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

/* Whether memory was lost so far, where the sanitizer for that is built in. */
bool LeaksMemory();

/* The names in the whole table. */
std::set<std::string> AllCalls();

#endif
