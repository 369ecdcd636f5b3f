#include "platform/processor.h"

#include "platform/processFacts.h"

#include <atomic>

namespace {

enum class ProcessorAnswer : unsigned char { UNKNOWN, NO, YES };

/* Threads that ask at the same time find the same; a guarded constant would bring the C++ library's exceptions along. */
std::atomic<ProcessorAnswer> sWide = ProcessorAnswer::UNKNOWN;

} // namespace

/* The compiler's own query needs a library that is not part of the system. There is no such value on other processors, and
   none or 0 where the program is translated. */
bool Processor_HasWideRegisters()
{
   ProcessorAnswer answer = sWide.load(std::memory_order_relaxed);

   if (answer == ProcessorAnswer::UNKNOWN) {
      int32_t value = 0;
      const bool has = ProcessFacts_SystemValue("hw.optional.avx2_0", &value) && value == 1;
      answer = has ? ProcessorAnswer::YES : ProcessorAnswer::NO;
      sWide.store(answer, std::memory_order_relaxed);
   }
   return answer == ProcessorAnswer::YES;
}
