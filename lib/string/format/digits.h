#ifndef TESSEL_LIB_STRING_FORMAT_DIGITS_H
#define TESSEL_LIB_STRING_FORMAT_DIGITS_H

#include "platform/decimalDigits.h"

/* Private to the formatting engine: the routines of platform/decimalDigits.h under the same contracts, faster for
   everyday magnitudes and precisions, which they work out themselves, exactly, in 128-bit integers. */

[[nodiscard]] bool FormatDigits_Significant(DecimalDigits *digits, double value, int count);
[[nodiscard]] bool FormatDigits_Fixed(DecimalDigits *digits, double value, int count);

#endif
