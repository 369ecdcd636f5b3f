#ifndef TESSEL_TESTS_SUPPORT_ALLOCATIONFAULTS_H
#define TESSEL_TESTS_SUPPORT_ALLOCATIONFAULTS_H

#include <climits>

/* Exhausted memory, on demand. A test that links allocation-faults has the calls of malloc, calloc and realloc
   that are linked into it pass through here (the linker's --wrap), under every sanitizer; those of shared
   libraries do not. Each of these calls sets errno, as a real one may. Requests beyond what any machine has
   are answered with null under AddressSanitizer too. */

/* While it lives, the allocations from the first-th on (counted from 1) up to the last-th fail. */
class FailingAllocations {
 public:
   explicit FailingAllocations(int first, int last = INT_MAX);
   ~FailingAllocations();
   FailingAllocations(const FailingAllocations &) = delete;
   FailingAllocations &operator=(const FailingAllocations &) = delete;

   /* Whether one has failed so far. */
   [[nodiscard]] static bool Failed();
};

/* Makes the call again and again, with its first allocation failing, with its second, and so on until none does.
   Returns how many there are. */
template <typename Call> int FailEachAllocation(Call call)
{
   for (int allocation = 1;; allocation++) {
      const FailingAllocations faults(allocation, allocation);
      call();
      if (!FailingAllocations::Failed()) {
         return allocation - 1;
      }
   }
}

#endif
