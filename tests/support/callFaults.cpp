#include "tests/support/callFaults.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

/* The names are the linker's and the C library's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c) */

namespace {

enum class Failing { MINUS, ZERO, NUMBER, DONE };

} // namespace

extern "C" {

__attribute__((weak)) int __lsan_do_recoverable_leak_check();

/* The arguments of a call as they were put on the stack, and what it is to return. */
struct CallArguments {
   long places[6];
   long result;
};

struct CallRow {
   long (*real)(long, long, long, long, long, long); /* First: it is gone to from there. */
   const char *name;
   Failing failing;
   size_t stream;
   std::array<int, 3> errors;
   size_t index;
};

#define SAFE(reason, names)
#define CALL(name, failing, stream, ...)                                                                     \
   long __real_##name(long, long, long, long, long, long);                                                   \
   CallRow callRow_##name = {__real_##name, #name, Failing::failing, stream, {__VA_ARGS__}, 0};
#include "tests/support/calls.inc"
#undef CALL

void *CallEnter(const CallRow *row, CallArguments *arguments);

/* Of this process, and inherited by those it forks; null: nothing is watched. */
extern CallWatch::Record *callArmed;

/* Of any signature: the registers that carry arguments are put aside, and taken back before the real function is gone
   to as if it had been called at once. Where nothing is watched nothing else is called: a sanitizer's own
   calls come through here, too, before compiled code can be run under it. */
asm(".text\n"
    "callEnter:\n"
    "  cmpq $0, callArmed(%rip)\n  jne 2f\n  jmp *(%r11)\n"
    "2:\n"
    "  pushq %rax\n  pushq %r9\n  pushq %r8\n  pushq %rcx\n  pushq %rdx\n  pushq %rsi\n  pushq %rdi\n"
    "  movq %r11, %rdi\n  movq %rsp, %rsi\n  call CallEnter@PLT\n  movq %rax, %r11\n"
    "  popq %rdi\n  popq %rsi\n  popq %rdx\n  popq %rcx\n  popq %r8\n  popq %r9\n  popq %rax\n"
    "  testq %r11, %r11\n  je 1f\n  jmp *%r11\n"
    "1:ret\n"
#define CALL(name, ...)                                                                                      \
   ".globl __wrap_" #name "\n__wrap_" #name ":\n  leaq callRow_" #name "(%rip), %r11\n  jmp callEnter\n"
#include "tests/support/calls.inc"
);
#undef CALL
}

namespace {

CallRow *const ROWS[] = {
#define CALL(name, ...) &callRow_##name,
#include "tests/support/calls.inc"
};
#undef CALL
#undef SAFE

} // namespace

struct CallWatch::Record {
   CallFault fault;
   const CallAction *action; /* Null: there is the fault only. */
   std::array<bool, std::size(ROWS)> named;
   std::atomic<bool> struck;
   std::atomic<size_t> total;
   std::atomic<int> allocations;
   std::array<const CallRow *, 1000> order;
   std::array<std::atomic<int>, std::size(ROWS)> calls;
   std::array<std::atomic<bool>, std::size(ROWS)> raised;
};

namespace {

bool IsAllocation(const CallRow *row)
{
   return row == &callRow_malloc || row == &callRow_calloc || row == &callRow_realloc;
}

/* By the counts so far, with this call in them. */
bool IsToFail(CallWatch::Record *record, const CallRow *row)
{
   const CallFault &fault = record->fault;
   if (fault.call == "allocation") {
      return IsAllocation(row) && ++record->allocations >= fault.which;
   }
   return fault.call.empty() ? record->total == static_cast<size_t>(fault.which)
                             : fault.call == row->name && record->calls[row->index] == fault.which;
}

long Fail(const CallRow *row, const long *arguments, int error)
{
   if (error == CALL_KILLS) {
      kill(getpid(), SIGKILL);
   }
   if (row->stream != 0) {
      reinterpret_cast<FILE *>(arguments[row->stream - 1])->_flags |= _IO_ERR_SEEN;
   }
   if (row->failing == Failing::DONE) {
      row->real(arguments[0], 0, 0, 0, 0, 0);
   }
   errno = error;
   return row->failing == Failing::ZERO ? 0 : row->failing == Failing::NUMBER ? error : -1;
}

} // namespace

CallWatch::Record *callArmed = nullptr;

/* What to go to; null: the call is over, and the result is among the arguments. */
void *CallEnter(const CallRow *row, CallArguments *arguments)
{
   CallWatch::Record *const record = callArmed;
   void *const real = reinterpret_cast<void *>(row->real);

   if (!record->named[row->index]) {
      return real;
   }
   record->calls[row->index]++;
   record->raised[row->index] = record->raised[row->index] || (geteuid() == 0 && getuid() != 0);
   const size_t number = ++record->total;
   if (number <= record->order.size()) {
      record->order[number - 1] = row;
   }
   Call call = {row->name, number, arguments->places, std::nullopt, row};
   if (record->action != nullptr) {
      callArmed = nullptr;
      (*record->action)(call);
      callArmed = record;
   } else if (IsToFail(record, row)) {
      record->struck = true;
      call.Fail(record->fault.error);
   }
   arguments->result = call.result.value_or(arguments->result);
   return call.result ? nullptr : real;
}

long Call::Make()
{
   const long *const a = arguments;
   result = row->real(a[0], a[1], a[2], a[3], a[4], a[5]);
   return *result;
}

void Call::Fail(int error)
{
   result = ::Fail(row, arguments, error);
}

CallWatch::CallWatch(const CallFault &fault)
{
   void *const shared =
       mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   record_ = new (shared) Record();
   record_->fault = fault;
   for (size_t i = 0; i < std::size(ROWS); i++) {
      ROWS[i]->index = i;
      record_->named[i] = ROWS[i]->errors[0] != 0;
   }
}

CallWatch::CallWatch(const std::set<std::string> &names, CallAction action) : CallWatch(CallFault())
{
   action_ = std::move(action);
   record_->action = &action_;
   for (const CallRow *row : ROWS) {
      record_->named[row->index] = names.empty() ? row->errors[0] != 0 : names.count(row->name) != 0;
   }
   Arm();
}

CallWatch::~CallWatch()
{
   Disarm();
   record_->~Record();
   munmap(record_, sizeof(Record));
}

void CallWatch::Arm()
{
   callArmed = record_;
}

void CallWatch::Disarm()
{
   callArmed = nullptr;
}

/* What is done at the end of a process, like writing the counters of a coverage run, goes undisturbed. */
__attribute__((destructor)) static void EndOfProcess()
{
   CallWatch::Disarm();
}

bool CallWatch::Struck() const
{
   return record_->struck;
}

std::vector<std::string> CallWatch::Called() const
{
   std::vector<std::string> names;
   for (size_t i = 0; i < std::min(record_->total.load(), record_->order.size()); i++) {
      names.emplace_back(record_->order[i]->name);
   }
   return names;
}

std::vector<CallFault> CallWatch::Faults() const
{
   std::vector<CallFault> faults;
   for (const CallRow *row : ROWS) {
      for (int which = 1; which <= record_->calls[row->index]; which++) {
         for (const int error : row->errors) {
            if (error != 0) {
               faults.push_back({row->name, which, error});
            }
         }
      }
   }
   return faults;
}

std::set<std::string> CallWatch::CalledRaised() const
{
   std::set<std::string> names;
   for (const CallRow *row : ROWS) {
      if (record_->raised[row->index]) {
         names.insert(row->name);
      }
   }
   return names;
}

/* What no machine has is answered with null, as by the C library. */
extern "C" const char *__asan_default_options()
{
   return "allocator_may_return_null=1";
}

bool LeaksMemory()
{
   return __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
}

std::set<std::string> AllCalls()
{
   std::istringstream words(
#define CALL(name, ...)     #name " "
#define SAFE(reason, names) names " "
#include "tests/support/calls.inc"
#undef CALL
#undef SAFE
   );
   return {std::istream_iterator<std::string>(words), {}};
}

/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c) */
