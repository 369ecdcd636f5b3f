#include "tests/support/allocationFaults.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

/* The names are the linker's and the sanitizer's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c) */

namespace {

std::atomic<int> sFirst = INT_MAX;
std::atomic<int> sLast = INT_MAX;
std::atomic<int> sRequests;

bool Fails()
{
   const int request = ++sRequests;
   errno = ENOMEM;
   return request >= sFirst && request <= sLast;
}

/* What is done at the end of a process, like writing the counters of a coverage run, finds memory. */
__attribute__((destructor)) void EndFaults()
{
   sFirst = INT_MAX;
}

} // namespace

FailingAllocations::FailingAllocations(int first, int last)
{
   sRequests = 0;
   sLast = last;
   sFirst = first;
}

FailingAllocations::~FailingAllocations()
{
   sFirst = INT_MAX;
}

bool FailingAllocations::Failed()
{
   return sRequests >= sFirst;
}

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size)
{
   return Fails() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
   return Fails() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *block, size_t size)
{
   return Fails() ? nullptr : __real_realloc(block, size);
}

const char *__asan_default_options()
{
   return "allocator_may_return_null=1";
}
}

/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c) */
