#ifndef TESSEL_PLATFORM_DARWIN_ICUNAMES_H
#define TESSEL_PLATFORM_DARWIN_ICUNAMES_H

/* What this project calls of ICU, declared as the documentation of the 4.4 series has it: the product brings that library,
   whose symbols carry its version, but no headers. */

#include <cstddef>
#include <cstdint>

#ifndef TESSEL_ICU_VERSION
#define TESSEL_ICU_VERSION 44
#endif

#define TESSEL_ICU_JOIN(name, version)   name##_##version
#define TESSEL_ICU_EXPAND(name, version) TESSEL_ICU_JOIN(name, version)

/* The name under which the library exports a routine. */
#define TESSEL_ICU(name) TESSEL_ICU_EXPAND(name, TESSEL_ICU_VERSION)

using UBool = int8_t;
using UChar = char16_t;

enum UErrorCode : int {
   U_ZERO_ERROR = 0,
   U_BUFFER_OVERFLOW_ERROR = 15,
};

#endif
