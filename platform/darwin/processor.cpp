#include "platform/processor.h"

#include "platform/processFacts.h"

/* The compiler's own query needs a library that is not part of the system. There is no such value on other processors, and
   none or 0 where the program is translated. */
bool Processor_HasWideRegisters()
{
   static const bool has = [] {
      int32_t value = 0;
      return ProcessFacts_SystemValue("hw.optional.avx2_0", &value) && value == 1;
   }();
   return has;
}
