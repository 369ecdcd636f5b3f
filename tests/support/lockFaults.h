#ifndef TESSEL_TESTS_SUPPORT_LOCKFAULTS_H
#define TESSEL_TESTS_SUPPORT_LOCKFAULTS_H

#include <cstdint>
#include <functional>
#include <string>

/* Stands between the locks and the system in a test that links lock-faults. For this process: */
namespace LockFaults {

/* Called, unless empty, before each call on the file system with its number from 1: the error to fail it with, or 0. What
   this does itself goes straight through. */
inline std::function<int(int step)> before;

/* The machine it takes itself to be on, if it has not asked yet; empty: the real one. */
inline std::string machine;

/* Numbers are drawn from so many; 0: from all. */
inline uint32_t numbers;

/* Sleep is so many times shorter. */
inline unsigned haste = 1;

} // namespace LockFaults

#endif
