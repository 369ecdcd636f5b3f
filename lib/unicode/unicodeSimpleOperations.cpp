#include "lib/unicode/unicodeSimpleOperations.h"

#include "lib/misc/util.h"
#include "lib/public/owned.h"
#include "lib/string/str.h"

#include <cstdarg>

char *Unicode_Join(const char *first, ...)
{
   Owned<char> joined(Util_SafeStrdup(first));
   va_list further;
   va_start(further, first);
   while (joined != nullptr) {
      const char *next = va_arg(further, const char *);
      if (next == nullptr) {
         break;
      }
      joined.reset(Str_Asprintf(nullptr, "%s%s", joined.get(), next));
      if (joined == nullptr) {
         Panic("Unrecoverable memory allocation failure\n");
      }
   }
   va_end(further);
   return joined.release();
}
