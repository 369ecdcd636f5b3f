#ifndef TESSEL_LIB_STRING_BSD_VSNPRINTF_H
#define TESSEL_LIB_STRING_BSD_VSNPRINTF_H

#include <cstdarg>
#include <cstddef>

/* The formatting engine. Called through lib/string/str.h only. */

int Fmt_Format(char **output, const char *grouping, char thousandsSep, const char *decimalPoint, size_t size,
               const char *format, va_list args);

int Fmt_Vsnprintf(char **output, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

int Fmt_VsnprintfCLocale(char **output, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

#endif
