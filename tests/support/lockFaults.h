#ifndef TESSEL_TESTS_SUPPORT_LOCKFAULTS_H
#define TESSEL_TESTS_SUPPORT_LOCKFAULTS_H

#include <cstdint>
#include <functional>
#include <string>

/* Stands between the locks and the system in a test that links lock-faults: acts before, or fails, a call that the test
   chooses, and bends what is otherwise too rare or too slow to be tested. */
class LockFaults {
 public:
   /* Before each call on the file system from now on, with its number (from 1) and name: the error to fail it with, or
      0 to let it through. Calls that the routine itself makes are not counted. */
   using Before = std::function<int(int number, const char *call)>;

   explicit LockFaults(Before before);
   ~LockFaults();
   LockFaults(const LockFaults &) = delete;
   LockFaults &operator=(const LockFaults &) = delete;

   /* The calls so far. */
   [[nodiscard]] static int Count();

   /* The machine that this process takes itself to be on from now on, if it has not asked yet; empty: the real one. */
   static void SetMachine(const std::string &machine);

   /* Numbers are drawn from so many. */
   static void SetNumbers(uint32_t count);

   /* Sleep is so many times shorter. */
   static void SetHaste(unsigned factor);
};

#endif
