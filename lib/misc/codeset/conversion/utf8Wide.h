#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_UTF8WIDE_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_UTF8WIDE_H

#include <cstddef>

/* Private to the codeset layer: validation by steps of 32 bytes, where the processor can. */

/* Whether this processor and its system have what the next routine is made of. Without it, calling that is the end. */
bool CodeSetHasWideSteps();

/* As CodeSet_IsValidUtf8Buffer. */
bool CodeSetIsValidUtf8Wide(const unsigned char *text, size_t length);

#endif
