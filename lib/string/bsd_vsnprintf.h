#ifndef TESSEL_LIB_STRING_BSD_VSNPRINTF_H
#define TESSEL_LIB_STRING_BSD_VSNPRINTF_H

#include <cstdarg>
#include <cstddef>

/* The formatting engine: printf's language, the same on every system. Called through lib/string/str.h only.

   Two modes. Fixed: *output is the caller's buffer of size bytes; what does not fit (a NUL included) is
   dropped, and the NUL is written unless size is 0, when nothing is. Allocating: *output is null, size is
   ignored, and on success *output is a new string that the caller frees.

   Returns the length of the whole output without its NUL, whether stored or not. -1: that length is not an
   int, a wide character has no form in the locale, or memory ran out; *output is still null in allocating
   mode, and in fixed mode the buffer holds what was put until then. errno is never changed.

   Where it goes its own way:
   - %p is upper-case hexadecimal without a prefix.
   - %a, and any character that is no conversion, is printed as by %c and takes no argument.
   - %s with a precision never cuts through a UTF-8 character; %ls is UTF-8 in every locale.
   - %.0f rounds halves away from zero; a long double is printed with the precision of a double.
   - Sizes %I, %I32 and %I64, and the conversions %C %D %O %S %U (with l), are understood; %% takes a width.
   - A 0 flag pads any conversion with zeros.

   Conversions may be numbered (%2$s); an argument that no number names is taken for an int. The text that %
   and its successors read must not overlap the buffer. */

/* grouping: sizes of digit groups for the ' flag as in struct lconv, null for none. decimalPoint: any string. */
int Fmt_Format(char **output, const char *grouping, char thousandsSep, const char *decimalPoint, size_t size,
               const char *format, va_list args) __attribute__((format(printf, 6, 0)));

/* By the facts of the process's locale at the time of the call. */
int Fmt_Vsnprintf(char **output, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

/* By those of the C locale: no digit groups, and a point. */
int Fmt_VsnprintfCLocale(char **output, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

#endif
