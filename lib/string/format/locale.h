#ifndef TESSEL_LIB_STRING_FORMAT_LOCALE_H
#define TESSEL_LIB_STRING_FORMAT_LOCALE_H

#include <string_view>

/* Private to the formatting engine: the facts of the locale that a call goes by, and the grouping of digits. */

struct FormatLocale {
   const char *grouping; /* sizes of digit groups, the last group's first, as in struct lconv; null: none */
   char thousandsSep;
   const char *decimalPoint;
   bool pending; /* the facts are those of the process's locale, not read yet */
};

/* The facts, read on first use: few formats need them, and localeconv is not free of cost. */
const FormatLocale &FormatLocale_Get(FormatLocale *locale);

/* Writes the digits with a separator between groups so that they end before end; returns their start. No result is
   longer than twice the digits. */
char *FormatLocale_WriteGrouped(const FormatLocale &locale, char *end, std::string_view digits);

#endif
