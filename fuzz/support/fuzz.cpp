#include "fuzz/support/fuzz.h"

#include "base/unicode.h"
#include "lib/string/str.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

std::array<char, 1024> lastLog;
size_t logCount = 0;

/* Formatted as the daemon's log does it, so that the arguments are looked at. */
void Record(const char *format, va_list args)
{
   Str_Vsnprintf(lastLog.data(), lastLog.size(), format, args);
   logCount++;
}

} // namespace

/* Weak: a target that links the program's own modules has them from there. */

[[gnu::weak]] void Log(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   Record(format, args);
   va_end(args);
}

[[gnu::weak]] void Warning(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   Record(format, args);
   va_end(args);
}

[[gnu::weak]] void Panic(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   Record(format, args);
   va_end(args);
   throw Panicked();
}

[[gnu::weak]] LocationLookup Location_GetLookup()
{
   return nullptr;
}

void Fuzz_Fail(const char *file, int line, const char *condition)
{
   fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
   abort();
}

void Fuzz_Show(const char *what, std::string_view text)
{
   fprintf(stderr, "%s: \"", what);
   for (const char c : text) {
      const bool printable = c >= ' ' && c <= '~' && c != '"' && c != '\\';
      fprintf(stderr, printable ? "%c" : "\\x%02X", static_cast<unsigned char>(c));
   }
   fprintf(stderr, "\"\n");
}

void Fuzz_RequireSame(const char *file, int line, const char *what, std::string_view found,
                      std::string_view expected)
{
   if (found != expected) {
      Fuzz_Show("found", found);
      Fuzz_Show("expected", expected);
      Fuzz_Fail(file, line, what);
   }
}

std::string Take(char *text)
{
   REQUIRE(text != nullptr);
   const std::unique_ptr<char, Freed> owned(text);
   return {text};
}

Exactly::Exactly(std::string_view text) : bytes(std::make_unique<char[]>(text.size())), size(text.size())
{
   text.copy(bytes.get(), size);
}

std::string AsString(std::string text)
{
   text.resize(strlen(text.c_str()));
   return text;
}

std::string RestAsString(FuzzedDataProvider *input)
{
   return AsString(input->ConsumeRemainingBytesAsString());
}

size_t Fuzz_LogCount()
{
   return logCount;
}

std::string_view Fuzz_LastLog()
{
   return lastLog.data();
}

std::optional<std::u32string> DecodeUtf8(std::string_view text, bool loose)
{
   std::u32string codePoints;
   const auto *next = reinterpret_cast<const unsigned char *>(text.data());
   const auto *const end = next + text.size();
   while (next != end) {
      uint32_t codePoint;
      const int length = Utf8_Decode(next, end, &codePoint);
      if (length == 0 || (!loose && (Utf16_IsSurrogate(codePoint) || codePoint > UNICODE_LAST_CODE_POINT))) {
         return std::nullopt;
      }
      codePoints += codePoint;
      next += length;
   }
   return codePoints;
}

std::string EncodeUtf8(std::u32string_view codePoints)
{
   std::string text;
   for (const char32_t codePoint : codePoints) {
      char bytes[4];
      text.append(bytes, Utf8_Encode(codePoint, bytes));
   }
   return text;
}

std::string_view WithoutPartialEnd(std::string_view text)
{
   size_t lead = text.size();
   while (lead > 0 && Utf8_IsContinuation(static_cast<unsigned char>(text[lead - 1]))) {
      lead--;
   }
   if (lead == 0) {
      return {};
   }
   const auto first = static_cast<unsigned char>(text[--lead]);
   const size_t announced = first < 0x80 ? text.size() - lead : static_cast<size_t>(std::countl_one(first));
   return announced == text.size() - lead ? text : text.substr(0, lead);
}
