#include "lib/string/format/integer.h"

#include "lib/string/format/field.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

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

/* The number of decimal digits, at least one. Most numbers are small: comparing beats computing. */
size_t IntegerDecimalLength(uint64_t value)
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

/* The precision is a minimum of digits, and one given puts an end to zero padding. */
void IntegerHeedPrecision(Directive *directive)
{
   if (directive->precision >= 0) {
      directive->flags &= ~static_cast<unsigned>(ZEROPAD);
   }
}

/* The field for digits that end at end. */
bool IntegerPut(FormatSink *sink, Directive *directive, const char *digits, const char *end)
{
   IntegerHeedPrecision(directive);
   return Field_PutText(sink, *directive, {digits, static_cast<size_t>(end - digits)}, directive->precision);
}

/* Zero with an explicit precision of 0 has no digits. */
bool IntegerHasDigits(const Directive &directive, uint64_t value)
{
   return value != 0 || directive.precision != 0;
}

/* Kept out of line, as the next one is: the usual road needs no scratch, nor the guard of its stack frame. */
[[gnu::noinline]] bool IntegerPutGrouped(FormatSink *sink, Directive *directive, uint64_t magnitude,
                                         const FormatLocale &locale)
{
   char plain[MAX_DECIMAL_DIGITS];
   char scratch[SCRATCH_SIZE];
   char *const end = scratch + sizeof scratch;
   const char *digits = end;

   if (IntegerHasDigits(*directive, magnitude)) {
      const char *const start = Integer_WriteDecimal(std::end(plain), magnitude);
      digits = Locale_WriteGrouped(locale, end, {start, static_cast<size_t>(std::end(plain) - start)});
   }
   return IntegerPut(sink, directive, digits, end);
}

[[gnu::noinline]] void IntegerPutCutDigits(FormatSink *sink, uint64_t value, size_t length)
{
   char scratch[MAX_DECIMAL_DIGITS];

   Sink_Put(sink, Integer_WriteDecimal(std::end(scratch), value), length);
}

/* Of length bytes, straight into the sink where it has the room. */
void IntegerPutDigits(FormatSink *sink, uint64_t value, size_t length)
{
   if (length > static_cast<size_t>(sink->limit - sink->cursor)) {
      IntegerPutCutDigits(sink, value, length);
      return;
   }
   sink->cursor += length;
   Integer_WriteDecimal(sink->cursor, value);
}

/* A field of its own width and precision. */
[[gnu::noinline]] bool IntegerPutField(FormatSink *sink, Directive *directive, uint64_t magnitude)
{
   IntegerHeedPrecision(directive);
   if (!IntegerHasDigits(*directive, magnitude)) {
      return Field_PutText(sink, *directive, {});
   }
   const size_t length = IntegerDecimalLength(magnitude);
   return Field_Put(sink, *directive, static_cast<int64_t>(length), directive->precision,
                    [magnitude, length](FormatSink *to) { IntegerPutDigits(to, magnitude, length); });
}

/* With zeros between the sign, if there is one, and the digits up to the width. */
bool IntegerPutPadded(FormatSink *sink, char sign, uint64_t magnitude, size_t width)
{
   const size_t digits = IntegerDecimalLength(magnitude);
   const size_t real = digits + (sign != '\0' ? 1 : 0);

   if (!Sink_Announce(sink, std::max(real, width))) {
      return false;
   }
   if (sign != '\0') {
      Sink_PutByte(sink, sign);
   }
   if (width > real) {
      Sink_Fill(sink, '0', static_cast<int64_t>(width - real));
   }
   IntegerPutDigits(sink, magnitude, digits);
   return true;
}

bool IntegerPutDecimal(FormatSink *sink, Directive *directive, uint64_t magnitude, FormatLocale *locale)
{
   if ((directive->flags & GROUPING) != 0) {
      return IntegerPutGrouped(sink, directive, magnitude, Locale_Get(locale));
   }
   if (directive->width > 0 || directive->precision >= 0) {
      return IntegerPutField(sink, directive, magnitude);
   }
   return IntegerPutPadded(sink, directive->sign, magnitude, 0);
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

bool Integer_PutInt(FormatSink *sink, int value, size_t width)
{
   const auto magnitude = static_cast<uint64_t>(value);

   return value < 0 ? IntegerPutPadded(sink, '-', -magnitude, width)
                    : IntegerPutPadded(sink, '\0', magnitude, width);
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
