#include "platform/decimalDigits.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

/* ecvt and fcvt answer in a static buffer that their next call frees: the lock covers the copy too. */
pthread_mutex_t sConversionLock = PTHREAD_MUTEX_INITIALIZER;

using DecimalDigitsConversion = char *(*)(double, int, int *, int *);

/* The digits go to digits->buffer without leading zeros, which the exponent accounts for; none if there are only
   zeros. */
bool DecimalDigitsConvert(DecimalDigits *digits, DecimalDigitsConversion convert, double value, int count)
{
   int negative = 0;

   pthread_mutex_lock(&sConversionLock);
   const char *const answer = convert(std::fabs(value), count, &digits->exponent, &negative);
   if (answer != nullptr) {
      const size_t zeros = strspn(answer, "0");
      digits->length = strnlen(answer + zeros, sizeof digits->buffer);
      digits->exponent -= static_cast<int>(zeros);
      memcpy(digits->buffer, answer + zeros, digits->length);
   }
   pthread_mutex_unlock(&sConversionLock);
   return answer != nullptr;
}

/* The library is free to leave trailing zeros out or to add some; callers are promised an exact number of digits. */
void DecimalDigitsSetLength(DecimalDigits *digits, int count)
{
   const auto length = static_cast<size_t>(count);

   if (digits->length < length) {
      memset(digits->buffer + digits->length, '0', length - digits->length);
   }
   digits->text = digits->buffer;
   digits->length = length;
}

} // namespace

bool DecimalDigits_Significant(DecimalDigits *digits, double value, int count)
{
   if (value == 0) {
      digits->length = 0;
      digits->exponent = 1;
   } else if (!DecimalDigitsConvert(digits, ecvt, value, count)) {
      return false;
   }
   DecimalDigitsSetLength(digits, count);
   return true;
}

bool DecimalDigits_Fixed(DecimalDigits *digits, double value, int count)
{
   digits->length = 0;
   if (value != 0 && !DecimalDigitsConvert(digits, fcvt, value, count)) {
      return false;
   }
   if (digits->length == 0) {
      digits->exponent = -count;
   }
   DecimalDigitsSetLength(digits, digits->exponent + count);
   return true;
}
