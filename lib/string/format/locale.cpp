#include "lib/string/format/locale.h"

#include <clocale>
#include <cstddef>
#include <cstdint>

namespace {

/* A group size that ends all grouping. An empty list means the same. */
constexpr char NO_MORE_GROUPS = 127;
constexpr char NO_GROUPS[] = {NO_MORE_GROUPS, '\0'};

size_t FormatLocaleGroupSize(char size)
{
   return size == NO_MORE_GROUPS ? SIZE_MAX : static_cast<unsigned char>(size);
}

} // namespace

const FormatLocale &FormatLocale_Get(FormatLocale *locale)
{
   if (locale->pending) {
      const struct lconv *const current = localeconv();
      *locale = {current->grouping, *current->thousands_sep, current->decimal_point, false};
   }
   return *locale;
}

char *FormatLocale_WriteGrouped(const FormatLocale &locale, char *end, std::string_view digits)
{
   const char *sizes = locale.grouping != nullptr && *locale.grouping != '\0' ? locale.grouping : NO_GROUPS;
   size_t room = FormatLocaleGroupSize(*sizes);

   for (; !digits.empty(); digits.remove_suffix(1)) {
      if (room == 0) {
         *--end = locale.thousandsSep;
         if (sizes[1] != '\0') {
            sizes++;
         }
         room = FormatLocaleGroupSize(*sizes);
      }
      *--end = digits.back();
      room--;
   }
   return end;
}
