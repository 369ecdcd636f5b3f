#include "tests/support/callFaults.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <new>
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
   long sixth, fifth, fourth, third, second, first;
   long result;
};

struct CallRow {
   long (*real)(long); /* First: it is gone to from there. */
   const char *name;
   Failing failing;
   int stream;
   std::array<int, 3> errors;
   size_t index;
};

#define CALL(name, failing, stream, ...)                                                                     \
   long __real_##name(long);                                                                                 \
   CallRow callRow_##name = {__real_##name, #name, Failing::failing, stream, {__VA_ARGS__}, 0};
#define SAFE(name, reason)
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
    "  pushq %rax\n  pushq %rdi\n  pushq %rsi\n  pushq %rdx\n  pushq %rcx\n  pushq %r8\n  pushq %r9\n"
    "  movq %r11, %rdi\n  movq %rsp, %rsi\n  call CallEnter@PLT\n  movq %rax, %r11\n"
    "  popq %r9\n  popq %r8\n  popq %rcx\n  popq %rdx\n  popq %rsi\n  popq %rdi\n  popq %rax\n"
    "  testq %r11, %r11\n  je 1f\n  jmp *%r11\n"
    "1:ret\n"
#define CALL(name, ...)                                                                                      \
   ".globl __wrap_" #name "\n__wrap_" #name ":\n  leaq callRow_" #name "(%rip), %r11\n  jmp callEnter\n"
#include "tests/support/calls.inc"
);
#undef CALL
#undef SAFE
}

namespace {

CallRow *const ROWS[] = {
#define CALL(name, ...) &callRow_##name,
#define SAFE(name, reason)
#include "tests/support/calls.inc"
#undef CALL
#undef SAFE
};

} // namespace

struct CallWatch::Record {
   const CallRow *row; /* Null: nothing fails. */
   int which;
   int error;
   int firstAllocation; /* That fails, with all that follow; 0: none. */
   std::atomic<int> allocations;
   std::atomic<bool> struck;
   std::atomic<size_t> total;
   std::array<const CallRow *, 1000> order;
   std::array<std::atomic<int>, std::size(ROWS)> calls;
   std::array<std::atomic<bool>, std::size(ROWS)> raised;
};

namespace {

void MarkStream(const CallRow *row, const CallArguments *arguments)
{
   const long places[] = {0, arguments->first, arguments->second, arguments->third, arguments->fourth};
   if (row->stream != 0) {
      reinterpret_cast<FILE *>(places[row->stream])->_flags |= _IO_ERR_SEEN;
   }
}

bool IsAllocation(const CallRow *row)
{
   return row == &callRow_malloc || row == &callRow_calloc || row == &callRow_realloc;
}

bool IsToFail(CallWatch::Record *record, const CallRow *row)
{
   const int which = ++record->calls[row->index];
   const size_t place = record->total++;
   if (place < record->order.size()) {
      record->order[place] = row;
   }
   if (record->firstAllocation != 0 && IsAllocation(row)) {
      return ++record->allocations >= record->firstAllocation;
   }
   if (record->row == nullptr) {
      return record->which != 0 && place + 1 == static_cast<size_t>(record->which);
   }
   return record->row == row && record->which == which;
}

long Fail(const CallRow *row, const CallArguments *arguments, int error)
{
   if (error == CALL_KILLS) {
      kill(getpid(), SIGKILL);
   }
   MarkStream(row, arguments);
   if (row->failing == Failing::DONE) {
      row->real(arguments->first);
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

   record->raised[row->index] = record->raised[row->index] || (geteuid() == 0 && getuid() != 0);
   if (IsToFail(record, row)) {
      record->struck = true;
      arguments->result = Fail(row, arguments, record->error);
      return nullptr;
   }
   return reinterpret_cast<void *>(row->real);
}

CallWatch::CallWatch(const CallFault &fault)
{
   void *const shared =
       mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   record_ = new (shared) Record();
   for (size_t i = 0; i < std::size(ROWS); i++) {
      ROWS[i]->index = i;
      record_->row = ROWS[i]->name == fault.call ? ROWS[i] : record_->row;
   }
   record_->firstAllocation = fault.call == "allocation" ? fault.which : 0;
   record_->which = fault.call == "allocation" ? 0 : fault.which;
   record_->error = fault.error;
}

CallWatch::~CallWatch()
{
   Disarm();
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

size_t OpenDescriptors()
{
   const std::filesystem::directory_iterator entries("/proc/self/fd");
   return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

bool LeaksMemory()
{
   return __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
}

std::vector<CallName> AllCalls()
{
   return {
#define CALL(name, ...)    {#name, nullptr},
#define SAFE(name, reason) {#name, reason},
#include "tests/support/calls.inc"
#undef CALL
#undef SAFE
   };
}

/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c) */
