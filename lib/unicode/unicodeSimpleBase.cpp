#include "lib/unicode/unicodeSimpleBase.h"
#include "base/unicode.h"

#include "base/owned.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/utf8.h"
#include "lib/misc/escape.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *MODULE = "lib/unicode/unicodeSimpleBase";

constexpr EscapeTable MakeUnprintable()
{
   EscapeTable table{};
   for (size_t byte = 0; byte < table.size(); byte++) {
      table[byte] = byte < 0x20 || byte == '\\' || byte >= 0x7F ? 1 : 0;
   }
   return table;
}

constexpr EscapeTable unprintable = MakeUnprintable();

/* The number of units before the zero unit. The buffer need not be aligned for them. */
template <typename Unit> size_t CountUnits(const void *buffer)
{
   const auto *bytes = static_cast<const char *>(buffer);
   for (size_t count = 0;; count++) {
      Unit unit;
      memcpy(&unit, bytes + count * sizeof unit, sizeof unit);
      if (unit == 0) {
         return count;
      }
   }
}

size_t KnownLength(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   return lengthInBytes < 0 ? Unicode_LengthInBytes(buffer, encoding) : static_cast<size_t>(lengthInBytes);
}

size_t ListLength(const char *const *list, ssize_t count)
{
   if (count >= 0) {
      return static_cast<size_t>(count);
   }
   size_t length = 0;
   while (list[length] != nullptr) {
      length++;
   }
   return length;
}

bool IsAscii(const void *buffer, size_t length)
{
   const auto *bytes = static_cast<const unsigned char *>(buffer);
   return std::all_of(bytes, bytes + length, [](unsigned char byte) { return byte < 0x80; });
}

char *TerminatedCopy(const char *string, size_t length)
{
   auto *copy = static_cast<char *>(Util_SafeMalloc(length + 1));
   if (length != 0) {
      memcpy(copy, string, length);
   }
   copy[length] = '\0';
   return copy;
}

/* The result of a conversion, or null if it fails. The text is not to be blamed when memory runs out: that ends the
   process. */
template <typename Conversion> char *Converted(const Conversion &convert)
{
   const int savedErrno = errno;
   char *output = nullptr;

   errno = 0;
   if (!convert(&output) && errno == ENOMEM) {
      Panic("Unrecoverable memory allocation failure at %s:%d\n", MODULE, __LINE__);
   }
   errno = savedErrno;
   return output;
}

char *AllocLenient(const void *buffer, size_t length, EncodingId encoding)
{
   return Converted([=](char **string) {
      return CodeSet_Convert(Unicode_EncodingEnumToName(encoding), buffer, length, "UTF-8",
                             CODESET_SUBSTITUTE, string, nullptr);
   });
}

char *AllocStrict(const void *buffer, size_t length, EncodingId encoding)
{
   const auto *bytes = static_cast<const char *>(buffer);
   switch (encoding) {
   case ENCODING_UTF16_LE:
      return Converted([=](char **string) { return CodeSet_Utf16leToUtf8(bytes, length, string, nullptr); });
   case ENCODING_UTF8:
   case ENCODING_US_ASCII:
      return Unicode_IsBufferValid(buffer, static_cast<ssize_t>(length), encoding)
                 ? Util_SafeStrndup(bytes, length)
                 : nullptr;
   default:
      return Converted([=](char **string) {
         return CodeSet_Convert(Unicode_EncodingEnumToName(encoding), buffer, length, "UTF-8", CODESET_REFUSE,
                                string, nullptr);
      });
   }
}

unsigned int HexDigit(char digit)
{
   if (digit >= '0' && digit <= '9') {
      return static_cast<unsigned int>(digit - '0');
   }
   const int lower = digit | 0x20;
   if (lower >= 'a' && lower <= 'f') {
      return static_cast<unsigned int>(lower - 'a' + 10);
   }
   Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, __LINE__);
}

/* One byte of a literal, which is ASCII. */
char LiteralByte(const char **text)
{
   const char byte = *(*text)++;
   if ((byte & 0x80) != 0) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   return byte;
}

uint32_t HexNumber(const char **text, size_t count)
{
   uint32_t value = 0;
   for (size_t i = 0; i < count; i++) {
      value = value << 4 | HexDigit(LiteralByte(text));
   }
   return value;
}

/* The next character or escape. A backslash is never the last byte here. */
uint32_t LiteralCodePoint(const char **text)
{
   const char first = LiteralByte(text);
   if (first != '\\') {
      return static_cast<uint32_t>(first);
   }
   const char kind = LiteralByte(text);
   if (kind != 'u' && kind != 'U') {
      return static_cast<uint32_t>(kind);
   }
   const uint32_t codePoint = HexNumber(text, kind == 'u' ? 4 : 8);
   if (codePoint > UNICODE_LAST_CODE_POINT) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   return codePoint;
}

char16_t *AppendCodePoint(uint32_t codePoint, char16_t *units)
{
   if (codePoint < 0x10000) {
      *units++ = static_cast<char16_t>(codePoint);
   } else {
      *units++ = static_cast<char16_t>(((codePoint - 0x10000) >> 10) + 0xD800);
      *units++ = static_cast<char16_t>((codePoint & 0x3FF) | 0xDC00);
   }
   return units;
}

} // namespace

char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   if (buffer == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   const size_t length = KnownLength(buffer, lengthInBytes, encoding);
   char *string = UnicodeAllocInternal(buffer, static_cast<ssize_t>(length), encoding, false);
   if (string == nullptr) {
      const Owned<char> escaped(UnicodeEscapeBuffer(buffer, static_cast<ssize_t>(length), encoding));
      Panic("%s: Couldn't convert invalid buffer [%s] from %s to Unicode.\n", "Unicode_AllocWithLength",
            escaped != nullptr ? escaped.get() : "(couldn't escape bytes)",
            Unicode_EncodingEnumToName(encoding));
   }
   return string;
}

char *UnicodeAllocInternal(const void *buffer, ssize_t lengthInBytes, EncodingId encoding, bool strict)
{
   if (buffer == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   const size_t length = KnownLength(buffer, lengthInBytes, encoding);
   return strict ? AllocStrict(buffer, length, encoding) : AllocLenient(buffer, length, encoding);
}

char *UnicodeEscapeBuffer(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   const size_t length = KnownLength(buffer, lengthInBytes, Unicode_ResolveEncoding(encoding));
   return Escape_Bytes("\\x", unprintable, buffer, length, nullptr);
}

char **Unicode_AllocList(const char *const *buffers, ssize_t count, EncodingId encoding)
{
   const size_t length = ListLength(buffers, count);
   auto **strings = static_cast<char **>(Util_SafeCalloc(length, sizeof(char *)));
   for (size_t i = 0; i < length; i++) {
      strings[i] = Unicode_AllocWithLength(buffers[i], -1, encoding);
   }
   return strings;
}

char *Unicode_AllocFromEscapedLiteral(const char *text, bool unescape)
{
   if (!unescape) {
      return Util_SafeStrdup(text);
   }
   /* No escape is shorter than the units it stands for. */
   const Owned<char16_t> units(
       static_cast<char16_t *>(Util_SafeMalloc((strlen(text) + 1) * sizeof(char16_t))));
   char16_t *next = units.get();
   while (*text != '\0' && strcmp(text, "\\") != 0) {
      next = AppendCodePoint(LiteralCodePoint(&text), next);
   }
   *next = 0;
   return Unicode_AllocWithLength(units.get(), -1, ENCODING_UTF16_LE);
}

void *Unicode_GetAllocBytesWithLength(const char *string, EncodingId encoding, ssize_t lengthInBytes,
                                      size_t *outLength)
{
   encoding = Unicode_ResolveEncoding(encoding);
   const size_t length = KnownLength(string, lengthInBytes, ENCODING_UTF8);
   char *bytes = nullptr;
   switch (encoding) {
   case ENCODING_UTF16_LE:
      bytes =
          Converted([=](char **output) { return CodeSet_Utf8ToUtf16le(string, length, output, outLength); });
      if (bytes == nullptr) {
         Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, __LINE__);
      }
      return bytes;
   case ENCODING_US_ASCII:
      if (!IsAscii(string, length)) {
         return nullptr;
      }
      [[fallthrough]];
   case ENCODING_UTF8:
      if (outLength != nullptr) {
         *outLength = length;
      }
      return TerminatedCopy(string, length);
   default:
      return Converted([=](char **output) {
         return CodeSet_Convert("UTF-8", string, length, Unicode_EncodingEnumToName(encoding), CODESET_REFUSE,
                                output, outLength);
      });
   }
}

void *Unicode_GetAllocBytes(const char *string, EncodingId encoding)
{
   return string == nullptr ? nullptr : Unicode_GetAllocBytesWithLength(string, encoding, -1, nullptr);
}

bool Unicode_CanGetBytesWithEncoding(const char *string, EncodingId encoding)
{
   const Owned<void> bytes(Unicode_GetAllocBytes(string, encoding));
   return string == nullptr || bytes != nullptr;
}

char **Unicode_GetAllocList(const char *const *strings, ssize_t count, EncodingId encoding)
{
   const size_t length = ListLength(strings, count);
   auto **list = static_cast<char **>(Util_SafeCalloc(length, sizeof(char *)));
   for (size_t i = 0; i < length; i++) {
      list[i] = static_cast<char *>(Unicode_GetAllocBytes(strings[i], encoding));
      if (list[i] == nullptr && strings[i] != nullptr) {
         std::for_each_n(list, i, free);
         free(list);
         return nullptr;
      }
   }
   return list;
}

bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   if (buffer == nullptr) {
      return true;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   const size_t length = KnownLength(buffer, lengthInBytes, encoding);
   switch (encoding) {
   case ENCODING_UTF8:
      return CodeSet_IsValidUtf8Buffer(buffer, length);
   case ENCODING_US_ASCII:
      return IsAscii(buffer, length);
   default:
      return CodeSet_Validate(static_cast<const char *>(buffer), length,
                              Unicode_EncodingEnumToName(encoding));
   }
}

size_t Unicode_LengthInBytes(const void *buffer, EncodingId encoding)
{
   switch (Unicode_ResolveEncoding(encoding)) {
   case ENCODING_UTF16_LE:
   case ENCODING_UTF16_BE:
   case ENCODING_UTF16:
      return CountUnits<char16_t>(buffer) * sizeof(char16_t);
   case ENCODING_UTF32_LE:
   case ENCODING_UTF32_BE:
   case ENCODING_UTF32:
      return CountUnits<char32_t>(buffer) * sizeof(char32_t);
   default:
      return strlen(static_cast<const char *>(buffer));
   }
}

ssize_t Unicode_LengthInCodePoints(const char *string)
{
   return CodeSet_LengthInCodePoints(string);
}

size_t Unicode_UTF16Strlen(const char16_t *string)
{
   return CountUnits<char16_t>(string);
}

char16_t *Unicode_UTF16Strdup(const char16_t *string)
{
   if (string == nullptr) {
      return nullptr;
   }
   const size_t bytes = (Unicode_UTF16Strlen(string) + 1) * sizeof(char16_t);
   auto *copy = static_cast<char16_t *>(Util_SafeMalloc(bytes));
   memcpy(copy, string, bytes);
   return copy;
}
