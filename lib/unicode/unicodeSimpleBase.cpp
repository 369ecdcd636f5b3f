#include "lib/unicode/unicodeSimpleBase.h"

#include "base/errno.h"
#include "base/owned.h"
#include "base/unicode.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/escape.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *MODULE = "lib/unicode/unicodeSimpleBase";

constexpr EscapeTable UnicodeMakeUnprintable()
{
   EscapeTable table{};
   for (size_t byte = 0; byte < table.size(); byte++) {
      table[byte] = byte < 0x20 || byte == '\\' || byte >= 0x7F ? 1 : 0;
   }
   return table;
}

constexpr EscapeTable UNPRINTABLE = UnicodeMakeUnprintable();

/* The number of units before the zero unit. The buffer need not be aligned for them. */
template <typename Unit> size_t UnicodeCountUnits(const void *buffer)
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

size_t UnicodeKnownLength(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   return lengthInBytes < 0 ? Unicode_LengthInBytes(buffer, encoding) : static_cast<size_t>(lengthInBytes);
}

size_t UnicodeListLength(const char *const *list, ssize_t count)
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

bool UnicodeIsAscii(const void *buffer, size_t length)
{
   return Ascii_PrefixLength(buffer, length) == length;
}

char *UnicodeTerminatedCopy(const char *string, size_t length)
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
template <typename Conversion> char *UnicodeConverted(const Conversion &convert)
{
   const KeptErrno kept;
   char *output = nullptr;
   errno = 0;
   if (!convert(&output) && errno == ENOMEM) {
      Panic("Unrecoverable memory allocation failure at %s:%d\n", MODULE, __LINE__);
   }
   return output;
}

char *UnicodeAllocLenient(const void *buffer, size_t length, EncodingId encoding)
{
   return UnicodeConverted([=](char **string) {
      return CodeSet_Convert(Unicode_EncodingEnumToName(encoding), buffer, length, "UTF-8",
                             CODESET_SUBSTITUTE, string, nullptr);
   });
}

char *UnicodeAllocStrict(const void *buffer, size_t length, EncodingId encoding)
{
   const auto *bytes = static_cast<const char *>(buffer);
   switch (encoding) {
   case ENCODING_UTF16_LE:
      return UnicodeConverted(
          [=](char **string) { return CodeSet_Utf16leToUtf8(bytes, length, string, nullptr); });
   case ENCODING_UTF8:
   case ENCODING_US_ASCII:
      return Unicode_IsBufferValid(buffer, static_cast<ssize_t>(length), encoding)
                 ? Util_SafeStrndup(bytes, length)
                 : nullptr;
   default:
      return UnicodeConverted([=](char **string) {
         return CodeSet_Convert(Unicode_EncodingEnumToName(encoding), buffer, length, "UTF-8", CODESET_REFUSE,
                                string, nullptr);
      });
   }
}

/* One byte of a literal, which is ASCII. */
char UnicodeLiteralByte(const char **text)
{
   const char byte = *(*text)++;
   if ((byte & 0x80) != 0) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   return byte;
}

/* Digits are not looked at beyond the first that is none, which may be the terminator. */
uint32_t UnicodeLiteralNumber(const char **text, size_t count)
{
   uint32_t value = 0;
   for (size_t i = 0; i < count; i++) {
      const int digit = Ascii_HexValue(UnicodeLiteralByte(text));
      if (digit == -1) {
         Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, __LINE__);
      }
      value = value << 4 | static_cast<uint32_t>(digit);
   }
   return value;
}

/* The next character or escape. A backslash is never the last byte here. */
uint32_t UnicodeLiteralCodePoint(const char **text)
{
   const char first = UnicodeLiteralByte(text);
   if (first != '\\') {
      return static_cast<uint32_t>(first);
   }
   const char kind = UnicodeLiteralByte(text);
   if (kind != 'u' && kind != 'U') {
      return static_cast<uint32_t>(kind);
   }
   const uint32_t codePoint = UnicodeLiteralNumber(text, kind == 'u' ? 4 : 8);
   if (codePoint > UNICODE_LAST_CODE_POINT) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   return codePoint;
}

} // namespace

char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   if (buffer == nullptr) {
      return nullptr;
   }
   encoding = Unicode_ResolveEncoding(encoding);
   const size_t length = UnicodeKnownLength(buffer, lengthInBytes, encoding);
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
   const size_t length = UnicodeKnownLength(buffer, lengthInBytes, encoding);
   return strict ? UnicodeAllocStrict(buffer, length, encoding)
                 : UnicodeAllocLenient(buffer, length, encoding);
}

char *UnicodeEscapeBuffer(const void *buffer, ssize_t lengthInBytes, EncodingId encoding)
{
   const size_t length = UnicodeKnownLength(buffer, lengthInBytes, Unicode_ResolveEncoding(encoding));
   return Escape_Bytes("\\x", UNPRINTABLE, buffer, length, nullptr);
}

char **Unicode_AllocList(const char *const *buffers, ssize_t count, EncodingId encoding)
{
   const size_t length = UnicodeListLength(buffers, count);
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
   const Owned<char> units(static_cast<char *>(Util_SafeMalloc((strlen(text) + 1) * sizeof(char16_t))));
   char *next = units.get();
   while (*text != '\0' && strcmp(text, "\\") != 0) {
      next = Utf16_Encode(UnicodeLiteralCodePoint(&text), next);
   }
   Utf16_StoreUnit(0, next);
   return Unicode_AllocWithLength(units.get(), -1, ENCODING_UTF16_LE);
}

void *Unicode_GetAllocBytesWithLength(const char *string, EncodingId encoding, ssize_t lengthInBytes,
                                      size_t *outLength)
{
   encoding = Unicode_ResolveEncoding(encoding);
   const size_t length = UnicodeKnownLength(string, lengthInBytes, ENCODING_UTF8);
   char *bytes = nullptr;
   switch (encoding) {
   case ENCODING_UTF16_LE:
      bytes = UnicodeConverted(
          [=](char **output) { return CodeSet_Utf8ToUtf16le(string, length, output, outLength); });
      if (bytes == nullptr) {
         Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, __LINE__);
      }
      return bytes;
   case ENCODING_US_ASCII:
      if (!UnicodeIsAscii(string, length)) {
         return nullptr;
      }
      [[fallthrough]];
   case ENCODING_UTF8:
      if (outLength != nullptr) {
         *outLength = length;
      }
      return UnicodeTerminatedCopy(string, length);
   default:
      return UnicodeConverted([=](char **output) {
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
   const size_t length = UnicodeListLength(strings, count);
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
   const size_t length = UnicodeKnownLength(buffer, lengthInBytes, encoding);
   switch (encoding) {
   case ENCODING_UTF8:
      return CodeSet_IsValidUtf8Buffer(buffer, length);
   case ENCODING_US_ASCII:
      return UnicodeIsAscii(buffer, length);
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
      return UnicodeCountUnits<char16_t>(buffer) * sizeof(char16_t);
   case ENCODING_UTF32_LE:
   case ENCODING_UTF32_BE:
   case ENCODING_UTF32:
      return UnicodeCountUnits<char32_t>(buffer) * sizeof(char32_t);
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
   return UnicodeCountUnits<char16_t>(string);
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
