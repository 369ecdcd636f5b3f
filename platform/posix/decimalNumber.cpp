#include "platform/decimalNumber.h"

#include <clocale>
#include <cstdlib>
#if __has_include(<xlocale.h>)
#include <xlocale.h>
#endif

double DecimalNumber_Parse(const char *text, char **end)
{
   static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);

   const locale_t previous = uselocale(cLocale);
   const double value = strtod(text, end);
   uselocale(previous);
   return value;
}
