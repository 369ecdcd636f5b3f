#include "tests/support/allocationFaults.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

/* The names are the linker's and the sanitizers'. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c) */

namespace {

std::atomic<int> sFirstFailure;
std::atomic<int> sRequests;

/* Any allocation may leave its mark in errno, also one that goes well. */
bool Fails()
{
   errno = ENOMEM;
   const int request = ++sRequests;
   const int first = sFirstFailure;
   return first != 0 && request >= first;
}

} // namespace

FailingAllocations::FailingAllocations(int n)
{
   sRequests = 0;
   sFirstFailure = n;
}

FailingAllocations::~FailingAllocations()
{
   sFirstFailure = 0;
}

int FailingAllocations::Requests()
{
   return sRequests;
}

bool FailingAllocations::Failed()
{
   return sFirstFailure != 0 && sRequests >= sFirstFailure;
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
}

/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c) */
