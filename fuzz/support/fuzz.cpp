#include "fuzz/support/fuzz.h"

#include "lib/string/str.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sanitizer/allocator_interface.h>

namespace {

std::array<char, 1024> lastLog;
size_t logCount = 0;

/* Formatted as the daemon's log does it, so that the arguments are looked at. */
void Record(const char *format, va_list args)
{
   Str_Vsnprintf(lastLog.data(), lastLog.size(), format, args);
   logCount++;
}

std::array<const volatile void *, 4096> blocks;
size_t blockCount = 0;
bool watching = false;

void OnAllocated(const volatile void *block, size_t /*size*/)
{
   if (watching && block != nullptr) {
      REQUIRE(blockCount < blocks.size());
      blocks[blockCount++] = block;
   }
}

void OnFreed(const volatile void *block)
{
   if (!watching) {
      return;
   }
   for (size_t i = blockCount; i-- > 0;) {
      if (blocks[i] == block) {
         blocks[i] = blocks[--blockCount];
         return;
      }
   }
}

bool IsContinuation(char byte)
{
   return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/* The length that a lead byte announces by its leading ones; 0 for a byte that is no lead. */
size_t AnnouncedLength(char byte)
{
   const auto lead = static_cast<unsigned char>(byte);
   size_t ones = 0;
   while (ones < 8 && (lead & (0x80U >> ones)) != 0) {
      ones++;
   }
   return ones == 0 ? 1 : ones == 1 ? 0 : ones;
}

/* The code point that text begins with, or nothing. */
std::optional<char32_t> FirstCodePoint(std::string_view text, size_t length, bool loose)
{
   static constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
   if (length < 1 || length > 4 || length > text.size()) {
      return std::nullopt;
   }
   char32_t value = static_cast<unsigned char>(text[0]) & (length == 1 ? 0x7FU : 0xFFU >> (length + 1));
   for (size_t i = 1; i < length; i++) {
      if (!IsContinuation(text[i])) {
         return std::nullopt;
      }
      value = value << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
   }
   const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
   if (value < smallest[length] || value > 0x13FFFF || (!loose && (isSurrogate || value > 0x10FFFF))) {
      return std::nullopt;
   }
   return value;
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
   watching = false; /* The exception is not the routine's. */
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

void Fuzz_WatchBlocks()
{
   static const int hooks = __sanitizer_install_malloc_and_free_hooks(OnAllocated, OnFreed);
   REQUIRE(hooks != 0);
   blockCount = 0;
   watching = true;
}

void Fuzz_FreeBlocks()
{
   while (blockCount > 0) {
      free(const_cast<void *>(blocks[--blockCount]));
   }
}

void Fuzz_ForgetBlocks()
{
   watching = false;
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
   while (!text.empty()) {
      const size_t length = AnnouncedLength(text[0]);
      const std::optional<char32_t> codePoint = FirstCodePoint(text, length, loose);
      if (!codePoint) {
         return std::nullopt;
      }
      codePoints += *codePoint;
      text.remove_prefix(length);
   }
   return codePoints;
}

std::string EncodeUtf8(std::u32string_view codePoints)
{
   std::string text;
   const auto append = [&text](char32_t bits) { text += static_cast<char>(bits); };
   for (const char32_t c : codePoints) {
      if (c < 0x80) {
         append(c);
         continue;
      }
      if (c < 0x800) {
         append(0xC0 | c >> 6);
      } else {
         if (c < 0x10000) {
            append(0xE0 | c >> 12);
         } else {
            append(0xF0 | c >> 18);
            append(0x80 | (c >> 12 & 0x3F));
         }
         append(0x80 | (c >> 6 & 0x3F));
      }
      append(0x80 | (c & 0x3F));
   }
   return text;
}

std::string_view WithoutPartialEnd(std::string_view text)
{
   size_t lead = text.size();
   while (lead > 0 && IsContinuation(text[lead - 1])) {
      lead--;
   }
   if (lead == 0) {
      return {};
   }
   lead--;
   const size_t announced = AnnouncedLength(text[lead]);
   const bool whole = announced == text.size() - lead || static_cast<unsigned char>(text[lead]) < 0x80;
   return whole ? text : text.substr(0, lead);
}
