#include "lib/string/format/digits.h"

#include "lib/string/format/integer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <optional>

namespace {

__extension__ using Uint128 = unsigned __int128;

/* Those that 64 bits hold. */
constexpr int MAX_POWER_OF_TEN = 19;
constexpr auto POWERS_OF_TEN = [] {
   std::array<uint64_t, MAX_POWER_OF_TEN + 1> powers{1};
   for (size_t i = 1; i < powers.size(); i++) {
      powers[i] = 10 * powers[i - 1];
   }
   return powers;
}();

/* The magnitude of a finite double: mantissa / 2^shift, with a shift of at least 0 unless it is too large for 64
   bits. */
struct FormatBinaryParts {
   uint64_t mantissa;
   int shift;
};

FormatBinaryParts FormatDigitsTakeApart(double value)
{
   static constexpr int mantissaBits = 52;
   static constexpr int bias = 1023;
   const uint64_t bits = std::bit_cast<uint64_t>(value);
   const int exponent = static_cast<int>(bits >> mantissaBits) & 0x7FF;
   FormatBinaryParts parts{bits & ((uint64_t{1} << mantissaBits) - 1),
                           mantissaBits + bias - std::max(exponent, 1)};

   if (exponent != 0) {
      parts.mantissa |= uint64_t{1} << mantissaBits;
   }
   if (parts.shift < 0 && parts.shift >= -std::countl_zero(parts.mantissa)) {
      parts.mantissa <<= -parts.shift;
      parts.shift = 0;
   }
   return parts;
}

/* dividend / 2^shift, to nearest, a tie to even. Nothing if 64 bits do not hold it. */
std::optional<uint64_t> FormatDigitsShiftRounded(Uint128 dividend, int shift)
{
   const Uint128 quotient = dividend >> shift;
   const Uint128 twiceRest = (dividend - (quotient << shift)) << 1;
   const Uint128 divisor = Uint128{1} << shift;

   if (quotient >= UINT64_MAX) {
      return std::nullopt;
   }
   const bool up = twiceRest > divisor || (twiceRest == divisor && (quotient & 1) != 0);
   return static_cast<uint64_t>(quotient) + (up ? 1 : 0);
}

uint64_t FormatDigitsDivideRounded(uint64_t dividend, uint64_t divisor)
{
   const uint64_t quotient = dividend / divisor;
   const uint64_t rest = dividend % divisor;
   const bool up = rest > divisor - rest || (rest == divisor - rest && (quotient & 1) != 0);

   return quotient + (up ? 1 : 0);
}

/* The value times 10^places, rounded to an integer. With places below 0 the value is at least 10^-places: its
   mantissa is then no smaller than the divisor. Nothing if that takes more than 128 bits. */
std::optional<uint64_t> FormatDigitsScale(FormatBinaryParts parts, int places)
{
   if (std::abs(places) > MAX_POWER_OF_TEN || parts.shift < 0 || parts.shift > 126) {
      return std::nullopt;
   }
   const uint64_t power = POWERS_OF_TEN[static_cast<size_t>(std::abs(places))];
   if (places < 0) {
      return FormatDigitsDivideRounded(parts.mantissa, power << parts.shift);
   }
   return FormatDigitsShiftRounded(Uint128{parts.mantissa} * power, parts.shift);
}

void FormatDigitsStore(DecimalDigits *digits, uint64_t number)
{
   char *const end = digits->buffer + MAX_POWER_OF_TEN + 1;

   digits->text = FormatInteger_WriteDecimal(end, number);
   digits->length = static_cast<size_t>(end - digits->text);
}

/* The largest e with 10^e <= 2^b, for b of any double. */
int FormatDigitsFloorLog10OfPowerOf2(int b)
{
   return (b * 315653) >> 20;
}

} // namespace

bool FormatDigits_Significant(DecimalDigits *digits, double value, int count)
{
   const FormatBinaryParts parts = FormatDigitsTakeApart(value);

   if (parts.mantissa == 0 || count >= MAX_POWER_OF_TEN) {
      return DecimalDigits_Significant(digits, value, count);
   }
   /* The exponent taken from the bits alone may be one too small, and so may the true one once the value is rounded
      to a power of ten: both show as one digit too many. */
   const int floorLog2 = static_cast<int>(std::bit_width(parts.mantissa)) - 1 - parts.shift;
   for (int exponent = FormatDigitsFloorLog10OfPowerOf2(floorLog2) + 1;; exponent++) {
      const std::optional<uint64_t> number = FormatDigitsScale(parts, count - exponent);
      if (!number) {
         return DecimalDigits_Significant(digits, value, count);
      }
      if (*number < POWERS_OF_TEN[static_cast<size_t>(count)]) {
         FormatDigitsStore(digits, *number);
         digits->exponent = exponent;
         return true;
      }
   }
}

bool FormatDigits_Fixed(DecimalDigits *digits, double value, int count)
{
   const std::optional<uint64_t> number = FormatDigitsScale(FormatDigitsTakeApart(value), count);

   if (!number) {
      return DecimalDigits_Fixed(digits, value, count);
   }
   FormatDigitsStore(digits, *number);
   if (*number == 0) {
      digits->length = 0;
   }
   digits->exponent = static_cast<int>(digits->length) - count;
   return true;
}
