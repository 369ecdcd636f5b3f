#include "lib/string/bsd_vsnprintf.h"

#include "base/errno.h"
#include "lib/string/format/arguments.h"
#include "lib/string/format/directive.h"
#include "lib/string/format/float.h"
#include "lib/string/format/integer.h"
#include "lib/string/format/locale.h"
#include "lib/string/format/sink.h"
#include "lib/string/format/text.h"

#include <cstdint>
#include <cstring>

namespace {

/* Everything a conversion works with. */
struct FormatCall {
   FormatSink *sink;
   FormatArguments *arguments;
   FormatLocale *locale;
};

template <typename Integer> void FormatStore(void *target, int count)
{
   const auto value = static_cast<Integer>(count);

   memcpy(target, &value, sizeof value);
}

/* The count so far, into an integer of the width that the size prefixes say. */
void FormatStoreCount(unsigned flags, void *target, int count)
{
   if ((flags & WIDE_INTEGER_FLAGS) != 0) {
      FormatStore<int64_t>(target, count);
   } else if ((flags & SHORTINT) != 0) {
      FormatStore<int16_t>(target, count);
   } else if ((flags & CHARINT) != 0) {
      FormatStore<int8_t>(target, count);
   } else {
      FormatStore<int32_t>(target, count);
   }
}

bool FormatConvert(const FormatCall &call, FormatDirective *directive, FormatValue value)
{
   switch (directive->kind) {
   case FormatKind::DECIMAL:
      return FormatInteger_PutDecimal(call.sink, directive, value.integer, call.locale);
   case FormatKind::OCTAL:
   case FormatKind::HEXADECIMAL:
      return FormatInteger_PutBits(call.sink, directive, static_cast<uint64_t>(value.integer));
   case FormatKind::POINTER:
      return FormatInteger_PutBits(call.sink, directive, reinterpret_cast<uintptr_t>(value.pointer));
   case FormatKind::EXPONENTIAL:
   case FormatKind::FIXED:
   case FormatKind::GENERAL:
      return FormatFloat_Put(call.sink, directive, value.real, call.locale);
   case FormatKind::STRING:
      if ((directive->flags & LONGINT) != 0) {
         return FormatText_PutWideString(call.sink, *directive, static_cast<const wchar_t *>(value.pointer));
      }
      return FormatText_PutString(call.sink, *directive, static_cast<const char *>(value.pointer));
   case FormatKind::CHARACTER:
      if ((directive->flags & LONGINT) != 0) {
         return FormatText_PutWideCharacter(call.sink, *directive, static_cast<wint_t>(value.integer));
      }
      return FormatText_PutByte(call.sink, *directive, static_cast<char>(value.integer));
   case FormatKind::COUNT:
      FormatStoreCount(directive->flags, value.pointer, FormatSink_Count(call.sink));
      return true;
   default: /* '%' among them */
      return FormatText_PutByte(call.sink, *directive, directive->conversion);
   }
}

/* "%s", "%d" and "%04d" are what nearly all messages are made of: they are put out without a directive's detour, which
   costs more than the text. Zero: the directive, at position, is another. Otherwise its length. */
size_t FormatPlainLength(const char *position)
{
   if (*position == 's' || *position == 'd') {
      return 1;
   }
   return position[0] == '0' && position[1] >= '1' && position[1] <= '9' && position[2] == 'd' ? 3 : 0;
}

bool FormatConvertPlain(const FormatCall &call, const char *position)
{
   if (*position == 's') {
      const auto *const string = static_cast<const char *>(call.arguments->Take(FormatType::POINTER).pointer);
      return FormatSink_Write(call.sink, string != nullptr ? string : "(null)");
   }
   return FormatInteger_PutInt(call.sink, static_cast<int>(call.arguments->Take(FormatType::INT).integer),
                               *position == '0' ? static_cast<size_t>(position[1] - '0') : 0);
}

/* Puts out the whole format and returns the place of its NUL; null: the result is -1. */
const char *FormatRun(const FormatCall &call, const char *format)
{
   for (;;) {
      const char *const run = format;
      while (*format != '\0' && *format != '%') {
         format++;
      }
      if (format != run && !FormatSink_Write(call.sink, {run, static_cast<size_t>(format - run)})) {
         return nullptr;
      }
      if (*format == '\0') {
         return format;
      }
      format++;
      if (const size_t length = FormatPlainLength(format); length != 0) {
         if (!FormatConvertPlain(call, format)) {
            return nullptr;
         }
         format += length;
         continue;
      }
      FormatDirective directive;
      format = call.arguments->Scan(format, &directive);
      if (directive.kind == FormatKind::END) {
         return format;
      }
      if (!FormatConvert(call, &directive, call.arguments->Take(directive.type))) {
         return nullptr;
      }
   }
}

const char *FormatInto(FormatSink *sink, FormatLocale *locale, const char *format, va_list args)
{
   FormatArguments arguments(format, args);

   return FormatRun({sink, &arguments, locale}, format);
}

int FormatAllocating(char **output, FormatLocale *locale, const char *format, va_list args)
{
   char frame[FORMAT_SINK_FRAME_SIZE];
   FormatSink sink;

   FormatSink_InitAllocating(&sink, frame, format);
   const char *const end = FormatInto(&sink, locale, format, args);
   if (end == nullptr) {
      FormatSink_Discard(&sink);
      return -1;
   }
   *output = FormatSink_Detach(&sink, end);
   return *output != nullptr ? FormatSink_Count(&sink) : -1;
}

int FormatFixed(char *buffer, size_t size, FormatLocale *locale, const char *format, va_list args)
{
   FormatSink sink;

   FormatSink_InitFixed(&sink, buffer, size);
   const char *const end = FormatInto(&sink, locale, format, args);
   FormatSink_Terminate(&sink);
   return end != nullptr ? FormatSink_Count(&sink) : -1;
}

/* What the engine calls may set errno; callers format messages about errno before they look at it. */
int FormatWithLocale(char **output, FormatLocale *locale, size_t size, const char *format, va_list args)
{
   const KeptErrno kept;

   return *output == nullptr ? FormatAllocating(output, locale, format, args)
                             : FormatFixed(*output, size, locale, format, args);
}

} // namespace

int Fmt_Format(char **output, const char *grouping, char thousandsSep, const char *decimalPoint, size_t size,
               const char *format, va_list args)
{
   FormatLocale locale{grouping, thousandsSep, decimalPoint, false};

   return FormatWithLocale(output, &locale, size, format, args);
}

int Fmt_Vsnprintf(char **output, size_t size, const char *format, va_list args)
{
   FormatLocale locale{nullptr, '\0', nullptr, true};

   return FormatWithLocale(output, &locale, size, format, args);
}

int Fmt_VsnprintfCLocale(char **output, size_t size, const char *format, va_list args)
{
   return Fmt_Format(output, nullptr, ',', ".", size, format, args);
}
