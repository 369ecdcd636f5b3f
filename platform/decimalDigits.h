#ifndef TESSEL_PLATFORM_DECIMALDIGITS_H
#define TESSEL_PLATFORM_DECIMALDIGITS_H

#include <cstddef>

/* Correctly rounded (to nearest, a tie on the exact binary value to even) decimal digits of a finite double. Both
   systems give the same digits. Safe to call from several threads at once; may take a lock, may touch errno.
 */

/* No double has more significant digits, or digits further behind the decimal point, than these: what lies beyond
   is zeros, so that callers with a larger precision ask for this much and add them. */
constexpr int DECIMAL_DIGITS_MAX_SIGNIFICANT = 767;
constexpr int DECIMAL_DIGITS_MAX_PLACES = 1074;

/* The sign is the caller's business: digits are those of the magnitude. */
struct DecimalDigits {
   const char *text; /* The digits, within buffer; no NUL. */
   size_t length;
   int exponent; /* Place of the decimal point: the magnitude is 0.DIGITS x 10^exponent. */
   char buffer[1 + 309 + 1 + DECIMAL_DIGITS_MAX_PLACES];
};

/* Exactly count significant digits, count from 1 to DECIMAL_DIGITS_MAX_SIGNIFICANT. Zero gives count zeros with
   exponent 1. False, with *digits undefined, if memory runs out. */
[[nodiscard]] bool DecimalDigits_Significant(DecimalDigits *digits, double value, int count);

/* The digits down to the count-th place after the decimal point, count from 1 to DECIMAL_DIGITS_MAX_PLACES, without
   leading zeros: exponent + count of them. A value that rounds to zero at that place gives no digits and an
   exponent of -count. False, with *digits undefined, if memory runs out. */
[[nodiscard]] bool DecimalDigits_Fixed(DecimalDigits *digits, double value, int count);

#endif
