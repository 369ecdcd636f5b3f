#include "platform/processor.h"

bool Processor_HasWideRegisters()
{
#ifdef __x86_64__
   return __builtin_cpu_supports("avx2") != 0;
#else
   return false;
#endif
}
