#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_UTF8_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_UTF8_H

#include <cstddef>

/* CodeSet_IsValidUtf8Buffer on a processor without wide steps, and for short texts. */
bool CodeSetIsValidUtf8Portable(const unsigned char *text, size_t length);

#endif
