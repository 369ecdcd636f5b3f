#include "lib/string/str.h"

#include <cstdio>

/* Bounded formatting on the platform's engine until lib/string/bsd_vsnprintf takes over. */

int Str_Vsnprintf(char *buffer, size_t maxSize, const char *format, va_list args)
{
   const int n = vsnprintf(buffer, maxSize, format, args);
   return n >= 0 && static_cast<size_t>(n) < maxSize ? n : -1;
}

int Str_Sprintf(char *buffer, size_t maxSize, const char *format, ...)
{
   va_list args;
   va_start(args, format);
   const int n = Str_Vsnprintf(buffer, maxSize, format, args);
   va_end(args);
   if (n == -1) {
      Panic("%s:%d Buffer too small\n", "lib/string/str", 214);
   }
   return n;
}

char *Str_Vasprintf(size_t *length, const char *format, va_list args)
{
   char *text = nullptr;
   const int n = vasprintf(&text, format, args);
   if (n < 0) {
      return nullptr;
   }
   if (length != nullptr) {
      *length = static_cast<size_t>(n);
   }
   return text;
}

char *Str_Asprintf(size_t *length, const char *format, ...)
{
   va_list args;
   va_start(args, format);
   char *text = Str_Vasprintf(length, format, args);
   va_end(args);
   return text;
}
