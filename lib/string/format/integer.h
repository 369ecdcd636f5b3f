#ifndef TESSEL_LIB_STRING_FORMAT_INTEGER_H
#define TESSEL_LIB_STRING_FORMAT_INTEGER_H

#include "lib/string/format/directive.h"
#include "lib/string/format/locale.h"
#include "lib/string/format/sink.h"

#include <cstdint>

/* Private to the formatting engine: the integer conversions. The directive is the routine's to change, and its size
   prefixes cut the value to its width. */

[[nodiscard]] bool FormatInteger_PutDecimal(FormatSink *sink, FormatDirective *directive, int64_t value,
                                            FormatLocale *locale);

/* Octal and hexadecimal; upper case for the conversions X and p, of which p never has a prefix. */
[[nodiscard]] bool FormatInteger_PutBits(FormatSink *sink, FormatDirective *directive, uint64_t value);

/* "%d", and with a width, of zeros up to it. */
[[nodiscard]] bool FormatInteger_PutInt(FormatSink *sink, int value, size_t width);

/* Writes the decimal digits of value, at least one, so that they end before end; returns their start. */
char *FormatInteger_WriteDecimal(char *end, uint64_t value);

#endif
