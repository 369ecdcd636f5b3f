#include "lib/string/format/float.h"

#include "lib/string/format/digits.h"
#include "lib/string/format/field.h"
#include "lib/string/format/integer.h"
#include "lib/string/str.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace {

constexpr int64_t DEFAULT_PRECISION = 6;
constexpr size_t MAX_INTEGER_DIGITS = std::numeric_limits<double>::max_exponent10 + 1;

/* A number taken apart for its field. Zeros follow what is there, as far as fractionLength says. */
struct FormatFloatParts {
   std::string_view integer;
   std::string_view decimalPoint; /* empty if not to be put */
   int64_t leadingZeros;          /* between the point and the fraction */
   std::string_view fraction;
   int64_t fractionLength; /* leadingZeros, the fraction, and zeros */
   std::string_view exponent;
};

bool FormatFloatPutParts(FormatSink *sink, const FormatDirective &directive, const FormatFloatParts &parts)
{
   const int64_t length =
       static_cast<int64_t>(parts.integer.size() + parts.decimalPoint.size() + parts.exponent.size()) +
       parts.fractionLength;

   return FormatField_Put(sink, directive, length, 0, [&parts](FormatSink *to) {
      FormatSink_Put(to, parts.integer.data(), parts.integer.size());
      FormatSink_Put(to, parts.decimalPoint.data(), parts.decimalPoint.size());
      FormatSink_Fill(to, '0', parts.leadingZeros);
      FormatSink_Put(to, parts.fraction.data(), parts.fraction.size());
      FormatSink_Fill(
          to, '0', parts.fractionLength - parts.leadingZeros - static_cast<int64_t>(parts.fraction.size()));
      FormatSink_Put(to, parts.exponent.data(), parts.exponent.size());
   });
}

bool FormatFloatIsUpperCase(const FormatDirective &directive)
{
   return directive.conversion >= 'A' && directive.conversion <= 'Z';
}

bool FormatFloatPutSpecial(FormatSink *sink, const FormatDirective &directive, double value)
{
   char text[] = "inf";

   if (std::isnan(value)) {
      memcpy(text, "nan", sizeof text);
   }
   if (FormatFloatIsUpperCase(directive)) {
      Str_ToUpper(text);
   }
   return FormatField_PutText(sink, directive, {text, sizeof text - 1});
}

/* The digits of the fixed form. With no place after the point, halves go away from zero: the value is rounded first,
   and the digit that then has to be asked for is a zero to drop. */
bool FormatFloatFixedDigits(DecimalDigits *digits, double value, int64_t precision)
{
   if (precision > 0) {
      return FormatDigits_Fixed(digits, value,
                                static_cast<int>(std::min<int64_t>(precision, DECIMAL_DIGITS_MAX_PLACES)));
   }
   if (!FormatDigits_Fixed(digits, std::round(value), 1)) {
      return false;
   }
   if (digits->length > 0) {
      digits->length--;
   }
   return true;
}

/* The digits up to the last that is not '0', but at least one. */
int64_t FormatFloatSignificantLength(std::string_view digits)
{
   const size_t last = digits.find_last_not_of('0');
   return last == std::string_view::npos ? 1 : static_cast<int64_t>(last) + 1;
}

std::string_view FormatFloatDecimalPoint(const FormatDirective &directive, int64_t fractionLength,
                                         FormatLocale *locale)
{
   if (fractionLength > 0 || (directive.flags & ALT) != 0) {
      return FormatLocale_Get(locale).decimalPoint;
   }
   return {};
}

/* Out of line for its large scratch. */
[[gnu::noinline]] bool FormatFloatPutGrouped(FormatSink *sink, const FormatDirective &directive,
                                             FormatFloatParts parts, const FormatLocale &locale)
{
   char scratch[2 * MAX_INTEGER_DIGITS];
   char *const end = scratch + sizeof scratch;
   const char *const grouped = FormatLocale_WriteGrouped(locale, end, parts.integer);

   parts.integer = {grouped, static_cast<size_t>(end - grouped)};
   return FormatFloatPutParts(sink, directive, parts);
}

bool FormatFloatPutFixed(FormatSink *sink, const FormatDirective &directive, const DecimalDigits &digits,
                         int64_t fractionLength, FormatLocale *locale)
{
   const std::string_view text(digits.text, digits.length);
   const size_t integerLength = static_cast<size_t>(std::max(digits.exponent, 0));
   FormatFloatParts parts{
       "0", FormatFloatDecimalPoint(directive, fractionLength, locale), 0, {}, fractionLength, {}};

   if (integerLength > 0) {
      parts.integer = text.substr(0, integerLength);
   }
   parts.leadingZeros = std::clamp<int64_t>(-digits.exponent, 0, fractionLength);
   parts.fraction = text.substr(std::min(integerLength, text.size()),
                                static_cast<size_t>(fractionLength - parts.leadingZeros));
   if ((directive.flags & GROUPING) != 0) {
      return FormatFloatPutGrouped(sink, directive, parts, FormatLocale_Get(locale));
   }
   return FormatFloatPutParts(sink, directive, parts);
}

/* exponent: of the power of ten, at most three digits. */
bool FormatFloatPutExponential(FormatSink *sink, const FormatDirective &directive,
                               const DecimalDigits &digits, int64_t fractionLength, FormatLocale *locale)
{
   char scratch[8];
   char *const end = scratch + sizeof scratch;
   const int exponent = digits.exponent - 1;
   char *start = FormatInteger_WriteDecimal(end, static_cast<uint64_t>(std::abs(exponent)));

   if (end - start < 2) {
      *--start = '0';
   }
   *--start = exponent < 0 ? '-' : '+';
   *--start = FormatFloatIsUpperCase(directive) ? 'E' : 'e';

   const std::string_view text(digits.text, digits.length);
   return FormatFloatPutParts(sink, directive,
                              {text.substr(0, 1),
                               FormatFloatDecimalPoint(directive, fractionLength, locale),
                               0,
                               text.substr(1, static_cast<size_t>(fractionLength)),
                               fractionLength,
                               {start, static_cast<size_t>(end - start)}});
}

/* g: as many significant digits as the precision says, in the form that suits the magnitude; zeros at the end of
   the fraction only with ALT. */
bool FormatFloatPutGeneral(FormatSink *sink, const FormatDirective &directive, const DecimalDigits &digits,
                           int64_t precision, FormatLocale *locale)
{
   int64_t shown = precision;

   if ((directive.flags & ALT) == 0) {
      shown = FormatFloatSignificantLength({digits.text, digits.length});
   }
   if (digits.exponent >= -3 && digits.exponent <= precision) {
      return FormatFloatPutFixed(sink, directive, digits, std::max<int64_t>(shown - digits.exponent, 0),
                                 locale);
   }
   return FormatFloatPutExponential(sink, directive, digits, shown - 1, locale);
}

bool FormatFloatPutSignificant(FormatSink *sink, const FormatDirective &directive, double value,
                               int64_t count, FormatLocale *locale)
{
   DecimalDigits digits;

   if (!FormatDigits_Significant(
           &digits, value, static_cast<int>(std::min<int64_t>(count, DECIMAL_DIGITS_MAX_SIGNIFICANT)))) {
      return false;
   }
   return directive.kind == FormatKind::GENERAL
              ? FormatFloatPutGeneral(sink, directive, digits, count, locale)
              : FormatFloatPutExponential(sink, directive, digits, count - 1, locale);
}

} // namespace

bool FormatFloat_Put(FormatSink *sink, FormatDirective *directive, double value, FormatLocale *locale)
{
   const int64_t precision = directive->precision < 0 ? DEFAULT_PRECISION : directive->precision;

   if (std::signbit(value) && !std::isnan(value)) {
      directive->sign = '-';
   }
   if (!std::isfinite(value)) {
      return FormatFloatPutSpecial(sink, *directive, value);
   }
   switch (directive->kind) {
   case FormatKind::FIXED: {
      DecimalDigits digits;
      return FormatFloatFixedDigits(&digits, value, precision) &&
             FormatFloatPutFixed(sink, *directive, digits, precision, locale);
   }
   case FormatKind::GENERAL:
      return FormatFloatPutSignificant(sink, *directive, value, std::max<int64_t>(precision, 1), locale);
   default:
      return FormatFloatPutSignificant(sink, *directive, value, precision + 1, locale);
   }
}
