#include "lib/string/format/integer.h"

#include "lib/string/format/field.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

namespace {

/* 64 bits make 20 decimal digits, each of which may have a separator, or 22 octal ones and the leading '0'. */
constexpr size_t MAX_DECIMAL_DIGITS = 20;
constexpr size_t MAX_OCTAL_DIGITS = 22;

constexpr auto DIGIT_PAIRS = [] {
   std::array<char, 200> pairs{};
   for (size_t i = 0; i < 100; i++) {
      pairs[2 * i] = static_cast<char>('0' + i / 10);
      pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
   }
   return pairs;
}();

/* The number of decimal digits, at least one. Most numbers are small: comparing beats computing. */
size_t FormatIntegerDecimalLength(uint64_t value)
{
   for (size_t length = 1;; length += 4) {
      if (value < 10) {
         return length;
      }
      if (value < 100) {
         return length + 1;
      }
      if (value < 1000) {
         return length + 2;
      }
      if (value < 10000) {
         return length + 3;
      }
      value /= 10000;
   }
}

uint64_t FormatIntegerNarrow(unsigned flags, uint64_t value)
{
   if ((flags & WIDE_INTEGER_FLAGS) != 0) {
      return value;
   }
   if ((flags & SHORTINT) != 0) {
      return static_cast<uint16_t>(value);
   }
   return (flags & CHARINT) != 0 ? static_cast<uint8_t>(value) : static_cast<uint32_t>(value);
}

int64_t FormatIntegerNarrowSigned(unsigned flags, int64_t value)
{
   if ((flags & (SHORTINT | CHARINT)) == 0 || (flags & WIDE_INTEGER_FLAGS) != 0) {
      return value;
   }
   return (flags & SHORTINT) != 0 ? static_cast<int16_t>(value) : static_cast<int8_t>(value);
}

/* Zero with an explicit precision of 0 has no digits. */
bool FormatIntegerHasDigits(const FormatDirective &directive, uint64_t value)
{
   return value != 0 || directive.precision != 0;
}

/* The field for digits that end at end. The precision is a minimum of digits, and one given puts an end to zero
   padding. */
bool FormatIntegerPut(FormatSink *sink, FormatDirective *directive, const char *digits, const char *end)
{
   if (directive->precision >= 0) {
      directive->flags &= ~static_cast<unsigned>(ZEROPAD);
   }
   return FormatField_PutText(sink, *directive, {digits, static_cast<size_t>(end - digits)},
                              directive->precision);
}

/* Kept out of line: the usual road needs no scratch, nor the guard of its stack frame. */
[[gnu::noinline]] void FormatIntegerPutCutDigits(FormatSink *sink, uint64_t value, size_t length)
{
   char scratch[MAX_DECIMAL_DIGITS];

   FormatSink_Put(sink, FormatInteger_WriteDecimal(std::end(scratch), value), length);
}

/* Of length bytes, straight into the sink where it has the room. */
void FormatIntegerPutDigits(FormatSink *sink, uint64_t value, size_t length)
{
   if (length > static_cast<size_t>(sink->limit - sink->cursor)) {
      FormatIntegerPutCutDigits(sink, value, length);
      return;
   }
   sink->cursor += length;
   FormatInteger_WriteDecimal(sink->cursor, value);
}

} // namespace

char *FormatInteger_WriteDecimal(char *end, uint64_t value)
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

bool FormatInteger_PutDecimal(FormatSink *sink, FormatDirective *directive, int64_t value,
                              FormatLocale *locale)
{
   char plain[MAX_DECIMAL_DIGITS];
   char grouped[2 * MAX_DECIMAL_DIGITS];
   const char *const end = std::end(plain);
   const char *digits = end;
   uint64_t magnitude = 0;

   if ((directive->flags & SIGNED) != 0) {
      const int64_t narrow = FormatIntegerNarrowSigned(directive->flags, value);
      directive->sign = narrow < 0 ? '-' : directive->sign;
      magnitude = narrow < 0 ? -static_cast<uint64_t>(narrow) : static_cast<uint64_t>(narrow);
   } else {
      magnitude = FormatIntegerNarrow(directive->flags, static_cast<uint64_t>(value));
   }
   if (FormatIntegerHasDigits(*directive, magnitude)) {
      digits = FormatInteger_WriteDecimal(std::end(plain), magnitude);
   }
   if ((directive->flags & GROUPING) == 0) {
      return FormatIntegerPut(sink, directive, digits, end);
   }
   digits = FormatLocale_WriteGrouped(FormatLocale_Get(locale), std::end(grouped),
                                      {digits, static_cast<size_t>(end - digits)});
   return FormatIntegerPut(sink, directive, digits, std::end(grouped));
}

/* With zeros between the sign, if there is one, and the digits up to the width. */
bool FormatInteger_PutInt(FormatSink *sink, int value, size_t width)
{
   const bool negative = value < 0;
   const uint64_t magnitude = negative ? -static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
   const size_t digits = FormatIntegerDecimalLength(magnitude);
   const size_t real = digits + (negative ? 1 : 0);

   if (!FormatSink_Announce(sink, std::max(real, width))) {
      return false;
   }
   if (negative) {
      FormatSink_PutByte(sink, '-');
   }
   if (width > real) {
      FormatSink_Fill(sink, '0', static_cast<int64_t>(width - real));
   }
   FormatIntegerPutDigits(sink, magnitude, digits);
   return true;
}

bool FormatInteger_PutBits(FormatSink *sink, FormatDirective *directive, uint64_t value)
{
   const bool octal = directive->kind == FormatKind::OCTAL;
   const unsigned bits = octal ? 3 : 4;
   const char *const table = directive->conversion == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";
   char scratch[MAX_OCTAL_DIGITS + 1];
   char *digits = std::end(scratch);

   if (directive->kind != FormatKind::POINTER) {
      value = FormatIntegerNarrow(directive->flags, value);
   }
   if (FormatIntegerHasDigits(*directive, value)) {
      uint64_t left = value;
      do {
         *--digits = table[left & ((1U << bits) - 1)];
         left >>= bits;
      } while (left != 0);
   }
   if ((directive->flags & ALT) != 0 && octal && (digits == std::end(scratch) || *digits != '0')) {
      *--digits = '0';
   }
   if ((directive->flags & ALT) != 0 && value != 0 && directive->kind == FormatKind::HEXADECIMAL) {
      directive->prefix = directive->conversion;
   }
   return FormatIntegerPut(sink, directive, digits, std::end(scratch));
}
