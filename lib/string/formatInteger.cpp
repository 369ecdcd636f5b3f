#include "lib/string/formatInteger.h"

#include "lib/string/formatField.h"

#include <array>
#include <cstring>

namespace {

/* Scratch for the digits of one integer. */
constexpr size_t SCRATCH_SIZE = 100;

/* 64 bits make 20 decimal digits, each of which may have a separator, or 22 octal ones and the leading '0'. */
constexpr size_t MAX_DECIMAL_DIGITS = 20;
static_assert(SCRATCH_SIZE >= 2 * MAX_DECIMAL_DIGITS && SCRATCH_SIZE >= 22 + 1);

constexpr auto DIGIT_PAIRS = [] {
   std::array<char, 200> pairs{};
   for (size_t i = 0; i < 100; i++) {
      pairs[2 * i] = static_cast<char>('0' + i / 10);
      pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
   }
   return pairs;
}();

template <unsigned BITS> char *IntegerWriteBits(char *end, uint64_t value, const char *table)
{
   do {
      *--end = table[value & ((1U << BITS) - 1)];
      value >>= BITS;
   } while (value != 0);
   return end;
}

/* The field for digits that end at end. The precision is a minimum of digits, and one given puts an end to zero
   padding. */
bool IntegerPut(FormatSink *sink, Directive *directive, const char *digits, const char *end)
{
   if (directive->precision >= 0) {
      directive->flags &= ~static_cast<unsigned>(ZEROPAD);
   }
   return Field_PutText(sink, *directive, {digits, static_cast<size_t>(end - digits)}, directive->precision);
}

/* Zero with an explicit precision of 0 has no digits. */
bool IntegerHasDigits(const Directive &directive, uint64_t value)
{
   return value != 0 || directive.precision != 0;
}

bool IntegerPutDecimal(FormatSink *sink, Directive *directive, uint64_t magnitude, FormatLocale *locale)
{
   char scratch[SCRATCH_SIZE];
   char *end = scratch + sizeof scratch;
   char *digits = end;

   if (IntegerHasDigits(*directive, magnitude)) {
      digits = Integer_WriteDecimal(end, magnitude);
   }
   if ((directive->flags & GROUPING) != 0) {
      char plain[MAX_DECIMAL_DIGITS];
      const size_t length = static_cast<size_t>(end - digits);
      memcpy(plain, digits, length);
      digits = Locale_WriteGrouped(Locale_Get(locale), end, {plain, length});
   }
   return IntegerPut(sink, directive, digits, end);
}

} // namespace

char *Integer_WriteDecimal(char *end, uint64_t value)
{
   while (value >= 100) {
      end -= 2;
      memcpy(end, &DIGIT_PAIRS[2 * (value % 100)], 2);
      value /= 100;
   }
   if (value >= 10) {
      end -= 2;
      memcpy(end, &DIGIT_PAIRS[2 * value], 2);
   } else {
      *--end = static_cast<char>('0' + value);
   }
   return end;
}

bool Integer_PutSigned(FormatSink *sink, Directive *directive, int64_t value, FormatLocale *locale)
{
   uint64_t magnitude = static_cast<uint64_t>(value);

   if (value < 0) {
      directive->sign = '-';
      magnitude = -magnitude;
   }
   return IntegerPutDecimal(sink, directive, magnitude, locale);
}

bool Integer_PutUnsigned(FormatSink *sink, Directive *directive, uint64_t value, FormatLocale *locale)
{
   return IntegerPutDecimal(sink, directive, value, locale);
}

bool Integer_PutOctal(FormatSink *sink, Directive *directive, uint64_t value)
{
   char scratch[SCRATCH_SIZE];
   char *end = scratch + sizeof scratch;
   char *digits = end;

   if (IntegerHasDigits(*directive, value)) {
      digits = IntegerWriteBits<3>(end, value, "01234567");
   }
   if ((directive->flags & ALT) != 0 && (digits == end || *digits != '0')) {
      *--digits = '0';
   }
   return IntegerPut(sink, directive, digits, end);
}

bool Integer_PutHexadecimal(FormatSink *sink, Directive *directive, uint64_t value)
{
   char scratch[SCRATCH_SIZE];
   char *end = scratch + sizeof scratch;
   char *digits = end;

   if (IntegerHasDigits(*directive, value)) {
      digits = IntegerWriteBits<4>(end, value,
                                   directive->conversion == 'x' ? "0123456789abcdef" : "0123456789ABCDEF");
   }
   if ((directive->flags & ALT) != 0 && value != 0 && directive->conversion != 'p') {
      directive->prefix = directive->conversion;
   }
   return IntegerPut(sink, directive, digits, end);
}
