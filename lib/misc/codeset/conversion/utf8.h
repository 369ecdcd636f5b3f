#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_UTF8_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_UTF8_H

#include <cstddef>

/* The two ways of CodeSet_IsValidUtf8Buffer, which agree on every text: on any processor, and by steps of 32 bytes where
   Processor_HasWideRegisters; there alone the second may be called. */
bool CodeSetIsValidUtf8Portable(const unsigned char *text, size_t length);
bool CodeSetIsValidUtf8Wide(const unsigned char *text, size_t length);

#endif
