#include "lib/string/bsd_vsnprintf.h"

#include "lib/string/format/arguments.h"
#include "lib/string/format/directive.h"
#include "lib/string/format/float.h"
#include "lib/string/format/integer.h"
#include "lib/string/format/locale.h"
#include "lib/string/format/sink.h"
#include "lib/string/format/text.h"

#include <cerrno>
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

/* The conversions whose output never has a sign. */
bool FormatConvertUnsigned(const FormatCall &call, Directive *directive)
{
   const unsigned flags = directive->flags;

   directive->sign = '\0';
   switch (directive->conversion) {
   case 's':
   case 'S':
      if ((flags & LONGINT) != 0) {
         return Text_PutWideString(call.sink, *directive,
                                   static_cast<const wchar_t *>(call.arguments->TakePointer()));
      }
      return Text_PutString(call.sink, *directive, static_cast<const char *>(call.arguments->TakePointer()));
   case 'c':
   case 'C':
      if ((flags & LONGINT) != 0) {
         return Text_PutWideCharacter(call.sink, *directive, static_cast<wint_t>(call.arguments->TakeInt()));
      }
      return Text_PutByte(call.sink, *directive, static_cast<char>(call.arguments->TakeInt()));
   case 'u':
   case 'U':
      return Integer_PutUnsigned(call.sink, directive, call.arguments->TakeUnsigned(flags), call.locale);
   case 'o':
   case 'O':
      return Integer_PutOctal(call.sink, directive, call.arguments->TakeUnsigned(flags));
   case 'x':
   case 'X':
      return Integer_PutHexadecimal(call.sink, directive, call.arguments->TakeUnsigned(flags));
   case 'p':
      return Integer_PutHexadecimal(call.sink, directive,
                                    reinterpret_cast<uintptr_t>(call.arguments->TakePointer()));
   case 'n':
      FormatStoreCount(flags, call.arguments->TakePointer(), Sink_Count(call.sink));
      return true;
   default: /* '%' among them */
      return Text_PutByte(call.sink, *directive, directive->conversion);
   }
}

bool FormatConvert(const FormatCall &call, Directive *directive)
{
   switch (directive->conversion) {
   case 'd':
   case 'i':
   case 'D':
      return Integer_PutSigned(call.sink, directive, call.arguments->TakeSigned(directive->flags),
                               call.locale);
   case 'e':
   case 'E':
   case 'f':
   case 'F':
   case 'g':
   case 'G':
      return Float_Put(call.sink, directive, call.arguments->TakeReal(directive->flags), call.locale);
   default:
      return FormatConvertUnsigned(call, directive);
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
      const auto *const string = static_cast<const char *>(call.arguments->TakePointer());
      return Sink_Write(call.sink, string != nullptr ? string : "(null)");
   }
   return Integer_PutInt(call.sink, call.arguments->TakeInt(),
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
      if (format != run && !Sink_Write(call.sink, {run, static_cast<size_t>(format - run)})) {
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
      Directive directive;
      format = Directive_Scan(format, &directive, call.arguments);
      if (directive.conversion == '\0') {
         return format;
      }
      if (!FormatConvert(call, &directive)) {
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
   char frame[SINK_FRAME_SIZE];
   FormatSink sink;

   Sink_InitAllocating(&sink, frame, format);
   const char *const end = FormatInto(&sink, locale, format, args);
   if (end == nullptr) {
      Sink_Discard(&sink);
      return -1;
   }
   *output = Sink_Detach(&sink, end);
   return *output != nullptr ? Sink_Count(&sink) : -1;
}

int FormatFixed(char *buffer, size_t size, FormatLocale *locale, const char *format, va_list args)
{
   FormatSink sink;

   Sink_InitFixed(&sink, buffer, size);
   const char *const end = FormatInto(&sink, locale, format, args);
   Sink_Terminate(&sink);
   return end != nullptr ? Sink_Count(&sink) : -1;
}

/* What the engine calls may set errno; callers format messages about errno before they look at it. */
int FormatWithLocale(char **output, FormatLocale locale, size_t size, const char *format, va_list args)
{
   const int savedErrno = errno;
   const int result = *output == nullptr ? FormatAllocating(output, &locale, format, args)
                                         : FormatFixed(*output, size, &locale, format, args);

   errno = savedErrno;
   return result;
}

} // namespace

int Fmt_Format(char **output, const char *grouping, char thousandsSep, const char *decimalPoint, size_t size,
               const char *format, va_list args)
{
   return FormatWithLocale(output, {grouping, thousandsSep, decimalPoint, false}, size, format, args);
}

int Fmt_Vsnprintf(char **output, size_t size, const char *format, va_list args)
{
   return FormatWithLocale(output, {nullptr, '\0', nullptr, true}, size, format, args);
}

int Fmt_VsnprintfCLocale(char **output, size_t size, const char *format, va_list args)
{
   return Fmt_Format(output, nullptr, ',', ".", size, format, args);
}
