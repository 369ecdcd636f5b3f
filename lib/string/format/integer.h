#ifndef TESSEL_LIB_STRING_FORMAT_INTEGER_H
#define TESSEL_LIB_STRING_FORMAT_INTEGER_H

#include "lib/string/format/directive.h"
#include "lib/string/format/locale.h"
#include "lib/string/format/sink.h"

#include <cstdint>

/* Private to the formatting engine: the integer conversions. The directive is the routine's to change. */

[[nodiscard]] bool Integer_PutSigned(FormatSink *sink, Directive *directive, int64_t value,
                                     FormatLocale *locale);
[[nodiscard]] bool Integer_PutUnsigned(FormatSink *sink, Directive *directive, uint64_t value,
                                       FormatLocale *locale);

/* "%d", and with a width, of zeros up to it. */
[[nodiscard]] bool Integer_PutInt(FormatSink *sink, int value, size_t width);

[[nodiscard]] bool Integer_PutOctal(FormatSink *sink, Directive *directive, uint64_t value);

/* Upper case for the conversions X and p; p never has a prefix. */
[[nodiscard]] bool Integer_PutHexadecimal(FormatSink *sink, Directive *directive, uint64_t value);

/* Writes the decimal digits of value, at least one, so that they end before end; returns their start. */
char *Integer_WriteDecimal(char *end, uint64_t value);

#endif
