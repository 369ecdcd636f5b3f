#include "lib/string/format/text.h"

#include "lib/string/format/field.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t MAX_UTF8_LENGTH = 4;
constexpr uint32_t REPLACEMENT_CHARACTER = 0xFFFD;

bool Utf8IsContinuation(char byte)
{
   return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/* Writes the character and returns its length. */
size_t Utf8Encode(char *bytes, uint32_t character)
{
   const auto continuation = [character](unsigned shift) {
      return static_cast<char>(0x80 | ((character >> shift) & 0x3F));
   };

   if (character < 0x80) {
      bytes[0] = static_cast<char>(character);
      return 1;
   }
   if (character < 0x800) {
      bytes[0] = static_cast<char>(0xC0 | (character >> 6));
      bytes[1] = continuation(0);
      return 2;
   }
   if (character < 0x10000) {
      bytes[0] = static_cast<char>(0xE0 | (character >> 12));
      bytes[1] = continuation(6);
      bytes[2] = continuation(0);
      return 3;
   }
   bytes[0] = static_cast<char>(0xF0 | (character >> 18));
   bytes[1] = continuation(12);
   bytes[2] = continuation(6);
   bytes[3] = continuation(0);
   return 4;
}

} // namespace

size_t Text_WholeUtf8Length(const char *text, size_t length)
{
   size_t lead = length;

   do {
      if (lead == 0) {
         return 0;
      }
      lead--;
   } while (Utf8IsContinuation(text[lead]));

   const int announced = std::countl_one(static_cast<unsigned char>(text[lead]));
   return announced == 0 || static_cast<size_t>(announced) == length - lead ? length : lead;
}

bool Text_PutString(FormatSink *sink, const Directive &directive, const char *string)
{
   size_t length = 0;

   if (string == nullptr) {
      string = "(null)";
   }
   if (directive.precision >= 0) {
      length = Text_WholeUtf8Length(string, strnlen(string, static_cast<size_t>(directive.precision)));
   } else {
      length = strlen(string);
   }
   return Field_PutText(sink, directive, {string, length});
}

Owned<char> Fmt_WideToUtf8(const wchar_t *string, int64_t precision)
{
   /* No character takes less than one byte or more than four: the room runs out at the precision or not at all. */
   const size_t characters = precision < 0 ? wcslen(string) : wcsnlen(string, static_cast<size_t>(precision));
   size_t capacity = characters * MAX_UTF8_LENGTH;
   if (precision >= 0) {
      capacity = std::min(capacity, static_cast<size_t>(precision));
   }

   Owned<char> text(static_cast<char *>(malloc(capacity + MAX_UTF8_LENGTH)));
   if (text == nullptr) {
      return nullptr;
   }
   /* The four bytes for the end also hold the character that turns out not to fit. */
   char *end = text.get();
   for (size_t i = 0; i < characters; i++) {
      const auto value = std::bit_cast<uint32_t>(string[i]); /* wchar_t has a sign */
      const size_t length = Utf8Encode(end, value < 0x110000 ? value : REPLACEMENT_CHARACTER);
      if (length > capacity) {
         break;
      }
      end += length;
      capacity -= length;
   }
   memset(end, 0, MAX_UTF8_LENGTH);
   return text;
}

bool Text_PutWideString(FormatSink *sink, const Directive &directive, const wchar_t *string)
{
   if (string == nullptr) {
      return Text_PutString(sink, directive, nullptr);
   }
   const Owned<char> text = Fmt_WideToUtf8(string, directive.precision);
   return text != nullptr && Text_PutString(sink, directive, text.get());
}

bool Text_PutByte(FormatSink *sink, const Directive &directive, char byte)
{
   return Field_PutText(sink, directive, {&byte, 1});
}

bool Text_PutWideCharacter(FormatSink *sink, const Directive &directive, wint_t character)
{
   char bytes[MB_LEN_MAX];
   mbstate_t fresh{};
   const size_t length = wcrtomb(bytes, static_cast<wchar_t>(character), &fresh);

   /* An error is the largest size. */
   return length <= sizeof bytes && Field_PutText(sink, directive, {bytes, length});
}
