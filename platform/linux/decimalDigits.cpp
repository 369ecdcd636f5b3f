#include "platform/decimalDigits.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

/* std::to_chars with a precision is exact for every double. The C library's ecvt and fcvt are not: they stop at
   17 digits and scale small values inexactly. */

bool DecimalDigits_Significant(DecimalDigits *digits, double value, int count)
{
   /* "d.ddde-xxx" from the second byte on: the first digit then moves over the point. A lone digit has none. */
   char *const first = digits->buffer + 1;
   char *const end = digits->buffer + sizeof digits->buffer;
   char *const last =
       std::to_chars(first, end, std::fabs(value), std::chars_format::scientific, count - 1).ptr;

   char *const text = count > 1 ? first + 1 : first;
   *text = *first;
   const char *const sign = text + count + 1;
   int exponent = 0;
   for (const char *digit = sign + 1; digit < last; digit++) {
      exponent = exponent * 10 + (*digit - '0');
   }
   digits->text = text;
   digits->length = static_cast<size_t>(count);
   digits->exponent = (*sign == '-' ? -exponent : exponent) + 1;
   return true;
}

bool DecimalDigits_Fixed(DecimalDigits *digits, double value, int count)
{
   char *const first = digits->buffer;
   char *const end = digits->buffer + sizeof digits->buffer;
   char *const last = std::to_chars(first, end, std::fabs(value), std::chars_format::fixed, count).ptr;
   char *const point = last - count - 1;

   char *text = first + 1;
   digits->exponent = static_cast<int>(point - first);
   if (*first != '0') {
      memmove(text, first, static_cast<size_t>(point - first)); /* over the point */
   } else {
      for (text = point + 1; text < last && *text == '0'; text++) {
      }
      digits->exponent = -static_cast<int>(text - point - 1);
   }
   digits->text = text;
   digits->length = static_cast<size_t>(last - text);
   return true;
}
