#ifndef TESSEL_PLATFORM_PROCESSOR_H
#define TESSEL_PLATFORM_PROCESSOR_H

/* Whether programs may use registers of 32 bytes for numbers (AVX2): the processor has them and the system saves them. Any
   thread may ask at any time; only the first time takes long enough to be noticed. */
[[nodiscard]] bool Processor_HasWideRegisters();

#endif
