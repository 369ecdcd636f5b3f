#include "lib/string/str.h"

#include "base/unicode.h"
#include "lib/string/bsd_vsnprintf.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr char MODULE[] = "lib/string/str";

/* The lines that the messages name. */
constexpr int LINE_SPRINTF_C_LOCALE = 177;
constexpr int LINE_SPRINTF = 214;
constexpr int LINE_STRCPY = 284;
constexpr int LINE_STRNCPY = 322;
constexpr int LINE_STRCAT = 444;
constexpr int LINE_STRNCAT = 498;
constexpr int LINE_SAFE_ASPRINTF = 657;

using Engine = int (*)(char **output, size_t size, const char *format, va_list args);

[[noreturn]] void StrPanicTooSmall(int line)
{
   Panic("%s:%d Buffer too small\n", MODULE, line);
}

bool StrFits(int result, size_t maxSize)
{
   return result >= 0 && static_cast<size_t>(result) < maxSize;
}

/* The engine's result. A text that was cut is cut back to the end of a character. */
int StrFormat(Engine engine, char *buffer, size_t maxSize, const char *format, va_list args)
{
   /* To the engine a null buffer is a request for a new string. */
   char unused = '\0';
   char *output = maxSize == 0 ? &unused : buffer;
   const int result = engine(&output, maxSize, format, args);

   if (maxSize != 0 && !StrFits(result, maxSize)) {
      buffer[Utf8_WholeLength(buffer, maxSize - 1)] = '\0';
   }
   return result;
}

char *StrPut(char *destination, const char *source, size_t length)
{
   memcpy(destination, source, length);
   destination[length] = '\0';
   return destination;
}

} // namespace

int Str_Vsnprintf(char *buffer, size_t maxSize, const char *format, va_list args)
{
   const int result = StrFormat(Fmt_Vsnprintf, buffer, maxSize, format, args);

   return StrFits(result, maxSize) ? result : -1;
}

int Str_Snprintf(char *buffer, size_t maxSize, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const int result = Str_Vsnprintf(buffer, maxSize, format, args);
   va_end(args);
   return result;
}

int Str_Sprintf(char *buffer, size_t maxSize, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const int result = Str_Vsnprintf(buffer, maxSize, format, args);
   va_end(args);
   if (result == -1) {
      StrPanicTooSmall(LINE_SPRINTF);
   }
   return result;
}

int Str_SprintfCLocale(char *buffer, size_t maxSize, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const int result = StrFormat(Fmt_VsnprintfCLocale, buffer, maxSize, format, args);
   va_end(args);
   if (!StrFits(result, maxSize)) {
      StrPanicTooSmall(LINE_SPRINTF_C_LOCALE);
   }
   return result;
}

char *Str_Vasprintf(size_t *length, const char *format, va_list args)
{
   char *text = nullptr;
   const int result = Fmt_Vsnprintf(&text, 0, format, args);

   if (result < 0) {
      return nullptr;
   }
   if (length != nullptr) {
      *length = static_cast<size_t>(result);
   }
   return text;
}

char *Str_Asprintf(size_t *length, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text = Str_Vasprintf(length, format, args);
   va_end(args);
   return text;
}

char *Str_SafeVasprintf(size_t *length, const char *format, va_list args)
{
   char *const text = Str_Vasprintf(length, format, args);

   if (text == nullptr) {
      Panic("VERIFY %s:%d\n", MODULE, LINE_SAFE_ASPRINTF);
   }
   return text;
}

char *Str_SafeAsprintf(size_t *length, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text = Str_SafeVasprintf(length, format, args);
   va_end(args);
   return text;
}

char *Str_Strcpy(char *destination, const char *source, size_t maxSize)
{
   const size_t length = strlen(source);

   if (length >= maxSize) {
      StrPanicTooSmall(LINE_STRCPY);
   }
   return StrPut(destination, source, length);
}

char *Str_Strncpy(char *destination, size_t destinationSize, const char *source, size_t n)
{
   const size_t length = Str_Strlen(source, n);

   if (length >= destinationSize) {
      StrPanicTooSmall(LINE_STRNCPY);
   }
   return StrPut(destination, source, length);
}

char *Str_Strcat(char *buffer, const char *source, size_t maxSize)
{
   const size_t present = strlen(buffer);
   const size_t added = strlen(source);

   if (present + added < present || present + added >= maxSize) {
      StrPanicTooSmall(LINE_STRCAT);
   }
   StrPut(buffer + present, source, added);
   return buffer;
}

char *Str_Strncat(char *buffer, size_t bufferSize, const char *source, size_t n)
{
   const size_t present = Str_Strlen(buffer, bufferSize);
   const size_t added = Str_Strlen(source, n);

   /* Enough for n bytes or for the whole source: enough for the smaller of them. */
   if (added >= bufferSize - present) {
      StrPanicTooSmall(LINE_STRNCAT);
   }
   StrPut(buffer + present, source, added);
   return buffer;
}

size_t Str_Strlen(const char *string, size_t maxLength)
{
   return strnlen(string, maxLength);
}

char *Str_Strnstr(const char *string, const char *substring, size_t n)
{
   if (*substring == '\0') {
      return const_cast<char *>(string);
   }
   const std::string_view text(string, Str_Strlen(string, n));
   const size_t place = text.find(substring);

   return place == std::string_view::npos ? nullptr : const_cast<char *>(string + place);
}

char *Str_ToLower(char *string)
{
   for (char *c = string; *c != '\0'; c++) {
      if (*c >= 'A' && *c <= 'Z') {
         *c = static_cast<char>(*c + ('a' - 'A'));
      }
   }
   return string;
}

char *Str_ToUpper(char *string)
{
   for (char *c = string; *c != '\0'; c++) {
      if (*c >= 'a' && *c <= 'z') {
         *c = static_cast<char>(*c - ('a' - 'A'));
      }
   }
   return string;
}
