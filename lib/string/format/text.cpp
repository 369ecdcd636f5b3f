#include "lib/string/format/text.h"

#include "base/unicode.h"
#include "lib/string/format/field.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t MAX_UTF8_LENGTH = 4;
constexpr uint32_t REPLACEMENT_CHARACTER = 0xFFFD;

} // namespace

bool FormatText_PutString(FormatSink *sink, const FormatDirective &directive, const char *string)
{
   size_t length = 0;

   if (string == nullptr) {
      string = "(null)";
   }
   if (directive.precision >= 0) {
      length = Utf8_WholeLength(string, strnlen(string, static_cast<size_t>(directive.precision)));
   } else {
      length = strlen(string);
   }
   return FormatField_PutText(sink, directive, {string, length});
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
   const char *const limit = end + capacity;
   for (size_t i = 0; i < characters; i++) {
      const auto value = std::bit_cast<uint32_t>(string[i]); /* wchar_t has a sign */
      char *const next = Utf8_Encode(value <= UNICODE_LAST_CODE_POINT ? value : REPLACEMENT_CHARACTER, end);
      if (next > limit) {
         break;
      }
      end = next;
   }
   memset(end, 0, MAX_UTF8_LENGTH);
   return text;
}

bool FormatText_PutWideString(FormatSink *sink, const FormatDirective &directive, const wchar_t *string)
{
   if (string == nullptr) {
      return FormatText_PutString(sink, directive, nullptr);
   }
   const Owned<char> text = Fmt_WideToUtf8(string, directive.precision);
   return text != nullptr && FormatText_PutString(sink, directive, text.get());
}

bool FormatText_PutByte(FormatSink *sink, const FormatDirective &directive, char byte)
{
   return FormatField_PutText(sink, directive, {&byte, 1});
}

bool FormatText_PutWideCharacter(FormatSink *sink, const FormatDirective &directive, wint_t character)
{
   char bytes[MB_LEN_MAX];
   mbstate_t fresh{};
   const size_t length = wcrtomb(bytes, static_cast<wchar_t>(character), &fresh);

   /* An error is the largest size. */
   return length <= sizeof bytes && FormatField_PutText(sink, directive, {bytes, length});
}
