#include "fuzz/support/fuzz.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <algorithm>
#include <cstring>
#include <vector>

/* Any bytes, taken for UTF-8. A precision and a buffer's size cut them by one rule: at so many bytes, less a sequence
   begun and not completed, so that of valid text valid text is left. The validations, the decoder of single
   sequences and what counts or converts by it agree with a decoder that takes one byte at a time. */

namespace {

std::string Padded(const std::string &text, size_t width, char pad)
{
   return std::string(width - std::min(width, text.size()), pad) + text;
}

/* What precision leaves of the text. */
std::string Cut(std::string_view text, size_t precision)
{
   return std::string(WithoutPartialEnd(text.substr(0, precision)));
}

/* What a copy into a smaller buffer leaves of it: there ASCII with bytes behind it that continue nothing goes with them. */
std::string CutCopy(const std::string &text, size_t size)
{
   const std::string all = text.substr(0, size);
   size_t lead = all.size();
   while (lead > 0 && (static_cast<unsigned char>(all[lead - 1]) & 0xC0) == 0x80) {
      lead--;
   }
   const bool stray = lead > 0 && lead < all.size() && static_cast<unsigned char>(all[lead - 1]) < 0x80;
   return stray ? all.substr(0, lead - 1) : Cut(text, size);
}

void CheckPrecision(const std::string &text, int precision, int width)
{
   /* No byte at or beyond the precision is read: the copy ends there. */
   const Exactly exact(text.substr(0, static_cast<size_t>(precision)));
   const char *const string =
       static_cast<size_t>(precision) <= text.size() ? exact.bytes.get() : text.c_str();
   const std::string cut = Cut(text, static_cast<size_t>(precision));

   REQUIRE_SAME(Take(Str_Asprintf(nullptr, "%.*s", precision, string)), cut);
   const std::string zeros = "%0*.*s"; /* Means something here, which the compiler does not know. */
   REQUIRE_SAME(Take(Str_Asprintf(nullptr, zeros.c_str(), width, precision, string)),
                Padded(cut, static_cast<size_t>(width), '0'));
   REQUIRE_SAME(Take(Str_Asprintf(nullptr, "%-*.*s|", width, precision, string)),
                cut +
                    Padded("", static_cast<size_t>(width), ' ')
                        .substr(std::min(cut.size(), static_cast<size_t>(width))) +
                    "|");
   REQUIRE(!DecodeUtf8(text) || DecodeUtf8(cut));
}

void CheckBuffer(const std::string &text, size_t size)
{
   const Exactly buffer(std::string(size, '#'));
   const int length = Str_Snprintf(buffer.bytes.get(), size, "%s", text.c_str());
   const bool fits = text.size() < size;
   REQUIRE(length == (fits ? static_cast<int>(text.size()) : -1));
   if (size > 0) {
      REQUIRE_SAME(std::string(buffer.bytes.get()), fits ? text : Cut(text, size - 1));
   }
}

void CheckCopy(const std::string &text, size_t size)
{
   const Exactly buffer(std::string(size, '#'));
   size_t written = SIZE_MAX;
   const bool complete = Unicode_CopyBytes(buffer.bytes.get(), text.c_str(), size, &written, ENCODING_UTF8);
   REQUIRE(complete == (text.size() < size));
   REQUIRE(written == (size == 0 ? 0 : strlen(buffer.bytes.get())));
   if (size > 0) {
      REQUIRE_SAME(std::string(buffer.bytes.get()), complete ? text : CutCopy(text, size - 1));
   }
}

/* Into UTF-16LE between characters; a destination without room for the terminator is left alone. */
void CheckWideCopy(const std::string &text, const std::u32string &codePoints, size_t size)
{
   const Exactly buffer(std::string(size, '#'));
   size_t written = SIZE_MAX;
   const bool complete =
       Unicode_CopyBytes(buffer.bytes.get(), text.c_str(), size, &written, ENCODING_UTF16_LE);
   std::string expected;
   bool fits = size >= 2;
   for (const char32_t c : codePoints) {
      const size_t bytes = c < 0x10000 ? 2 : 4;
      fits = fits && expected.size() + bytes + 2 <= size;
      if (!fits) {
         break;
      }
      const char32_t units = c < 0x10000 ? c : (0xD7C0 + (c >> 10)) | (0xDC00 | (c & 0x3FF)) << 16;
      for (size_t i = 0; i < bytes; i++) {
         expected += static_cast<char>(units >> (8 * i));
      }
   }
   REQUIRE(complete == fits && written == expected.size());
   const std::string stored = expected + std::string(2, '\0');
   REQUIRE_SAME(std::string(buffer.bytes.get(), size).substr(0, size < 2 ? size : stored.size()),
                size < 2 ? std::string(size, '#') : stored);
}

/* Every place in the text, with every end up to four bytes on. */
void CheckSequences(std::string_view text)
{
   for (size_t i = 0; i < text.size(); i++) {
      const Exactly exact(text.substr(i, 4));
      uint32_t found = 0xFFFFFFFF;
      const int length = CodeSet_GetUtf8(exact.bytes.get(), exact.bytes.get() + exact.size, &found);
      std::optional<std::u32string> first;
      size_t taken = 0;
      while (taken < exact.size && !first) {
         taken++;
         first = DecodeUtf8({exact.bytes.get(), taken}, true);
      }
      REQUIRE(length == (first ? static_cast<int>(taken) : 0));
      REQUIRE(found == (first ? first->front() : 0xFFFFFFFF));
   }
}

void CheckWhole(const std::string &bytes)
{
   const std::string text = AsString(bytes);
   const Exactly exact(bytes);
   const bool valid = DecodeUtf8(bytes).has_value();
   REQUIRE(CodeSet_IsValidUtf8Buffer(exact.bytes.get(), exact.size) == valid);
   REQUIRE(CodeSet_IsValidUtf8NoNul(exact.bytes.get(), exact.size) == (valid && text.size() == bytes.size()));
   REQUIRE(CodeSet_IsValidUtf8(text.c_str()) == DecodeUtf8(text).has_value());

   const std::optional<std::u32string> loose = DecodeUtf8(text, true);
   REQUIRE(CodeSet_LengthInCodePoints(text.c_str()) == (loose ? static_cast<ssize_t>(loose->size()) : -1));
   uint32_t *units = nullptr;
   REQUIRE(CodeSet_Utf8ToUtf32(text.c_str(), &units) == loose.has_value());
   const std::unique_ptr<uint32_t, Freed> owned(units);
   REQUIRE((units != nullptr) == loose.has_value());
   if (!loose) {
      return;
   }
   REQUIRE(std::equal(loose->begin(), loose->end(), units) && units[loose->size()] == 0);
   char *back = nullptr;
   const bool encodable = std::all_of(loose->begin(), loose->end(), [](char32_t c) { return c <= 0x10FFFF; });
   REQUIRE(CodeSet_Utf32ToUtf8(units, &back) == encodable);
   if (encodable) {
      REQUIRE_SAME(Take(back), text);
   } else {
      REQUIRE(back == nullptr);
   }
}

/* The offset of a code point needs no more than what comes before it to be valid. */
void CheckOffset(const std::string &text, size_t index)
{
   ssize_t expected = 0;
   std::string_view rest = text;
   for (size_t i = 0; i < index; i++) {
      size_t taken = 1;
      while (taken < 4 && taken < rest.size() && !DecodeUtf8(rest.substr(0, taken), true)) {
         taken++;
      }
      if (rest.empty() || !DecodeUtf8(rest.substr(0, taken), true)) {
         expected = -1;
         break;
      }
      rest.remove_prefix(taken);
      expected += static_cast<ssize_t>(taken);
   }
   REQUIRE(CodeSet_CodePointOffsetToByteOffset(text.c_str(), static_cast<ssize_t>(index)) == expected);
}

/* Wide strings become UTF-8 leniently: surrogates like other values, what no UTF-8 holds as U+FFFD; a precision counts
   the bytes, and ends before the first character that does not fit. */
void CheckWide(FuzzedDataProvider *input)
{
   const int precision = input->ConsumeIntegralInRange(-1, 40);
   std::vector<wchar_t> units;
   std::string expected;
   bool room = true;
   while (input->remaining_bytes() > 0) {
      const auto c = static_cast<char32_t>(input->ConsumeBool() ? input->ConsumeIntegralInRange(1, 0x10FFFF)
                                                                : input->ConsumeIntegral<int>());
      if (c == 0) {
         break;
      }
      units.push_back(static_cast<wchar_t>(c));
      const std::string bytes = EncodeUtf8(std::u32string(1, c < 0x110000 ? c : 0xFFFD));
      room = room && (precision < 0 || expected.size() + bytes.size() <= static_cast<size_t>(precision));
      expected += room ? bytes : "";
   }
   units.push_back(0);
   REQUIRE_SAME(Take(Str_Asprintf(nullptr, "%.*ls", precision, units.data())), expected);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   if (input.ConsumeIntegralInRange(0, 3) == 0) {
      CheckWide(&input);
      return 0;
   }
   const auto limit = input.ConsumeIntegralInRange<size_t>(0, 80);
   const int width = input.ConsumeIntegralInRange(0, 40);
   const std::string bytes = input.ConsumeRemainingBytesAsString();
   const std::string text = AsString(bytes);

   CheckPrecision(text, static_cast<int>(limit), width);
   CheckBuffer(text, limit);
   CheckCopy(text, limit);
   if (const std::optional<std::u32string> codePoints = DecodeUtf8(text)) {
      CheckWideCopy(text, *codePoints, limit);
   }
   CheckSequences(std::string_view(bytes).substr(0, 64));
   CheckWhole(bytes);
   CheckOffset(text, limit);
   return 0;
}
