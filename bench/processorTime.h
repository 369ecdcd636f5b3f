#ifndef TESSEL_BENCH_PROCESSORTIME_H
#define TESSEL_BENCH_PROCESSORTIME_H

#include <ctime>
#include <sys/resource.h>
#include <sys/types.h>

/* Processor time tells what work was done, however busy the machine is; a clock on the wall tells that as well. */

/* Seconds of another process so far; 0 if there is none of that id. */
inline double ProcessorSecondsOf(pid_t process)
{
   clockid_t clock;
   struct timespec time = {};
   if (clock_getcpuclockid(process, &clock) == 0) {
      clock_gettime(clock, &time);
   }
   return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/* Seconds of this process and of the children it has waited for. */
inline double ProcessorSeconds()
{
   struct rusage children;
   getrusage(RUSAGE_CHILDREN, &children);
   const auto seconds = [](const struct timeval &time) {
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
   };
   return ProcessorSecondsOf(0) + seconds(children.ru_utime) + seconds(children.ru_stime);
}

#endif
