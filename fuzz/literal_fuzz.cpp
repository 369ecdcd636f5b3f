#include "fuzz/support/fuzz.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <array>
#include <cstring>

/* Escaped literals end the process exactly where their rules are broken, and otherwise give the string that they spell;
   every string can be spelled. Bytes made printable are printable ASCII and can be read back. Buffers become
   strings where their encoding says that they are valid, and end the process elsewhere. */

namespace {

/* Where a literal reads hexadecimal digits; nothing if they are not. */
std::optional<char32_t> HexNumber(std::string_view digits, size_t count)
{
   if (digits.size() < count) {
      return std::nullopt;
   }
   char32_t value = 0;
   for (const char c : digits.substr(0, count)) {
      const auto digit = std::string_view("0123456789abcdef0123456789ABCDEF").find(c);
      if (digit == std::string_view::npos) {
         return std::nullopt;
      }
      value = value << 4 | (digit & 15);
   }
   return value;
}

/* The UTF-16 units that a literal spells; nothing if it breaks a rule. */
std::optional<std::u16string> Units(std::string_view literal)
{
   std::u16string units;
   for (size_t i = 0; i < literal.size(); i++) {
      auto c = static_cast<unsigned char>(literal[i]);
      if (c == '\\') {
         if (++i == literal.size()) {
            break;
         }
         c = static_cast<unsigned char>(literal[i]);
         if (c == 'u' || c == 'U') {
            const size_t count = c == 'u' ? 4 : 8;
            const std::optional<char32_t> value = HexNumber(literal.substr(i + 1), count);
            if (!value || *value > 0x10FFFF) {
               return std::nullopt;
            }
            if (*value > 0xFFFF) {
               units += static_cast<char16_t>(0xD7C0 + (*value >> 10));
               units += static_cast<char16_t>(0xDC00 + (*value & 0x3FF));
            } else {
               units += static_cast<char16_t>(*value);
            }
            i += count;
            continue;
         }
      }
      if (c >= 0x80) {
         return std::nullopt;
      }
      units += static_cast<char16_t>(c);
   }
   return units;
}

/* As a string: up to a zero unit; nothing if a surrogate stands alone. */
std::optional<std::string> Utf8Of(std::u16string_view units)
{
   std::u32string codePoints;
   units = units.substr(0, units.find(u'\0'));
   for (size_t i = 0; i < units.size(); i++) {
      char32_t c = units[i];
      if (c >= 0xD800 && c <= 0xDFFF) {
         if (c > 0xDBFF || i + 1 == units.size() || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) {
            return std::nullopt;
         }
         c = 0x10000 + ((c - 0xD800) << 10) + (units[++i] - 0xDC00U);
      }
      codePoints += c;
   }
   return EncodeUtf8(codePoints);
}

void CheckLiteral(const std::string &literal)
{
   const std::optional<std::u16string> units = Units(literal);
   const std::optional<std::string> expected = units ? Utf8Of(*units) : std::nullopt;
   char *found = nullptr;
   const bool panicked = Panics([&] { found = Unicode_AllocFromEscapedLiteral(literal.c_str(), true); });
   REQUIRE(panicked == !expected.has_value());
   if (!panicked) {
      REQUIRE_SAME(Take(found), *expected);
   }
   REQUIRE_SAME(Take(Unicode_AllocFromEscapedLiteral(literal.c_str(), false)), literal);
}

void CheckSpelling(const std::string &bytes)
{
   const std::optional<std::u32string> codePoints = DecodeUtf8(bytes);
   if (!codePoints) {
      return;
   }
   std::string literal;
   for (const char32_t c : *codePoints) {
      std::array<char, 16> spelled;
      snprintf(spelled.data(), spelled.size(), c > 0xFFFF ? "\\U%08x" : "\\u%04X", static_cast<unsigned>(c));
      literal += c < 0x80 && c != '\\' ? std::string(1, static_cast<char>(c)) : spelled.data();
   }
   REQUIRE_SAME(Take(Unicode_AllocFromEscapedLiteral(literal.c_str(), true)), bytes);
}

void CheckPrintable(const std::string &bytes)
{
   const Exactly exact(bytes);
   const std::string shown =
       Take(UnicodeEscapeBuffer(exact.bytes.get(), static_cast<ssize_t>(exact.size), ENCODING_UTF16_BE));
   std::string back;
   for (size_t i = 0; i < shown.size(); i++) {
      REQUIRE(shown[i] >= ' ' && shown[i] <= '~');
      if (shown[i] != '\\') {
         back += shown[i];
         continue;
      }
      REQUIRE(shown.compare(i, 2, "\\x") == 0);
      back += static_cast<char>(HexNumber(std::string_view(shown).substr(i + 2), 2).value());
      i += 3;
   }
   REQUIRE_SAME(back, bytes);
}

/* The built-in engine refuses what is not valid, lenient or not, but for ASCII, whose bytes it replaces. */
void CheckBuffer(const std::string &bytes, EncodingId encoding)
{
   const Exactly exact(bytes);
   const auto length = static_cast<ssize_t>(exact.size);
   const bool valid = Unicode_IsBufferValid(exact.bytes.get(), length, encoding);
   const std::unique_ptr<char, Freed> strict(UnicodeAllocInternal(exact.bytes.get(), length, encoding, true));
   REQUIRE((strict != nullptr) == valid);
   char *lenient = nullptr;
   const bool panicked =
       Panics([&] { lenient = Unicode_AllocWithLength(exact.bytes.get(), length, encoding); });
   const std::unique_ptr<char, Freed> owned(lenient);
   REQUIRE(panicked == (!valid && encoding != ENCODING_US_ASCII));
   REQUIRE(!panicked ||
           Fuzz_LastLog().starts_with("Unicode_AllocWithLength: Couldn't convert invalid buffer ["));
   if (valid) {
      REQUIRE_SAME(lenient, strict.get());
   }
   REQUIRE(panicked || CodeSet_IsValidUtf8(lenient));

   /* The same up to a terminator. */
   const size_t units = Unicode_LengthInBytes((bytes + std::string(4, '\0')).data(), encoding);
   REQUIRE(units <= bytes.size() + 3);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static const bool looked = UnicodeIANALookup("UTF-8") == ENCODING_UTF8 &&
                              UnicodeIANALookup("UTF-16LE") == ENCODING_UTF16_LE &&
                              UnicodeIANALookup("UTF-16BE") == ENCODING_UTF16_BE &&
                              UnicodeIANALookup("ASCII") == ENCODING_US_ASCII &&
                              UnicodeIANALookup("ISO-8859-1") == ENCODING_ISO_8859_1;
   REQUIRE(looked); /* And remembered, so that nothing of it is allocated by a call that panics. */
   FuzzedDataProvider input(data, size);
   const EncodingId encoding = input.PickValueInArray(
       {ENCODING_UTF8, ENCODING_UTF16_LE, ENCODING_UTF16_BE, ENCODING_US_ASCII, ENCODING_ISO_8859_1});
   const std::string bytes = input.ConsumeRemainingBytesAsString();
   CheckLiteral(AsString(bytes));
   CheckSpelling(AsString(bytes));
   CheckPrintable(bytes);
   CheckBuffer(bytes, encoding);
   return 0;
}
