#ifndef TESSEL_PLATFORM_DECIMALDIGITS_H
#define TESSEL_PLATFORM_DECIMALDIGITS_H

#include <cstddef>

/* Correctly rounded (to nearest, ties to even on the exact binary value) decimal digits of a double, at any
   precision. Both systems give the same digits. Safe to call from several threads at once. */

struct DecimalDigits {
   char *text;    /* The digits, or for a special value its text ("inf", "-inf", "nan", any case), ended by
                     NUL. Points to inlineText or to a block of its own. */
   size_t length; /* Bytes in text, without the NUL. */
   int exponent;  /* Place of the decimal point: the value is 0.DIGITS x 10^exponent. 9999 if special. */
   bool negative; /* The value has a minus sign; -0.0 included, NaN never. */
   char inlineText[344]; /* Room for the usual requests, so that they allocate nothing. */
};

/* Exactly count significant digits of value, count at least 1. False, with nothing to free, if memory runs out. */
[[nodiscard]] bool DecimalDigits_Significant(DecimalDigits *digits, double value, int count);

/* The digits of value down to the count-th place after the decimal point, count at least 0, without leading
   zeros: a value that rounds to zero at that place gives no digits at all. False, with nothing to free, if
   memory runs out. */
[[nodiscard]] bool DecimalDigits_Fixed(DecimalDigits *digits, double value, int count);

/* Releases what one of the routines above took. */
void DecimalDigits_Free(DecimalDigits *digits);

#endif
