#ifndef TESSEL_TESTS_SUPPORT_ALLOCATIONFAULTS_H
#define TESSEL_TESTS_SUPPORT_ALLOCATIONFAULTS_H

/* Exhausted memory, on demand. A test that links allocation-faults has the calls of malloc, calloc and realloc
   that are linked into it pass through here (the linker's --wrap), under every sanitizer; those of shared
   libraries do not. */

/* While it lives, the n-th allocation from now on (the first is 1) and all later ones fail; 0: none does. */
class FailingAllocations {
 public:
   explicit FailingAllocations(int n);
   ~FailingAllocations();
   FailingAllocations(const FailingAllocations &) = delete;
   FailingAllocations &operator=(const FailingAllocations &) = delete;

   /* How many allocations were asked for so far, failed ones included. */
   [[nodiscard]] static int Requests();

   [[nodiscard]] static bool Failed();
};

#endif
