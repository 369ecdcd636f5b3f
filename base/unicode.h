#ifndef TESSEL_BASE_UNICODE_H
#define TESSEL_BASE_UNICODE_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

/* Single sequences of UTF-8 and units of UTF-16 (RFC 3629, RFC 2781), inline for the loops that walk texts. No state: any
   thread may call these at any time. */

/* Sequences are stored, and units of UTF-16LE loaded and stored, as native numbers. */
static_assert(std::endian::native == std::endian::little);

constexpr uint32_t UNICODE_LAST_CODE_POINT = 0x10FFFF;

constexpr bool Utf16_IsSurrogate(uint32_t codePoint)
{
   return (codePoint & 0xFFFFF800) == 0xD800;
}

constexpr bool Utf16_IsHighSurrogate(uint32_t unit)
{
   return (unit & 0xFFFFFC00) == 0xD800;
}

constexpr bool Utf16_IsLowSurrogate(uint32_t unit)
{
   return (unit & 0xFFFFFC00) == 0xDC00;
}

constexpr uint32_t Utf16_JoinSurrogates(uint32_t high, uint32_t low)
{
   return (high << 10) + low - 0x35FDC00;
}

/* Stores one unit of UTF-16LE, aligned or not, and returns the end of it. */
inline char *Utf16_StoreUnit(uint32_t unit, char *out)
{
   const auto narrow = static_cast<uint16_t>(unit);
   memcpy(out, &narrow, sizeof narrow);
   return out + sizeof narrow;
}

/* Writes the code point as one unit or as two surrogates and returns the end of them. */
inline char *Utf16_Encode(uint32_t codePoint, char *out)
{
   if (codePoint < 0x10000) {
      return Utf16_StoreUnit(codePoint, out);
   }
   out = Utf16_StoreUnit((codePoint >> 10) + 0xD7C0, out);
   return Utf16_StoreUnit((codePoint & 0x3FF) | 0xDC00, out);
}

/* How many bytes of ASCII stand before the first that is none. */
inline size_t Ascii_PrefixLength(const void *bytes, size_t length)
{
   const auto *const begin = static_cast<const unsigned char *>(bytes);
   const unsigned char *next = begin;
   uint64_t word = 0;
   for (; length >= sizeof word; length -= sizeof word, next += sizeof word) {
      memcpy(&word, next, sizeof word);
      word &= 0x8080808080808080;
      if (word != 0) {
         return static_cast<size_t>(next - begin) + static_cast<size_t>(std::countr_zero(word)) / 8;
      }
   }
   while (length > 0 && *next < 0x80) {
      length--;
      next++;
   }
   return static_cast<size_t>(next - begin);
}

/* The value of a hexadecimal digit in either case, or -1. Not isxdigit, which would follow the locale. */
constexpr int Ascii_HexValue(char digit)
{
   if (digit >= '0' && digit <= '9') {
      return digit - '0';
   }
   const int lower = digit | 0x20;
   return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

constexpr bool Utf8_IsContinuation(unsigned char byte)
{
   return (byte & 0xC0) == 0x80;
}

/* How much of a text that was cut at length is left without the sequence that the cut broke: only the last lead byte
   counts, and how many bytes it announces by its leading ones. ASCII stays whatever is behind it. */
inline size_t Utf8_WholeLength(const char *text, size_t length)
{
   size_t lead = length;
   do {
      if (lead == 0) {
         return 0;
      }
      lead--;
   } while (Utf8_IsContinuation(static_cast<unsigned char>(text[lead])));
   const int announced = std::countl_one(static_cast<unsigned char>(text[lead]));
   return announced == 0 || static_cast<size_t>(announced) == length - lead ? length : lead;
}

/* The code point of the sequence at next, which must be before end, and how many bytes it takes: 0 if it is none. As a
   value: surrogates pass, and what four bytes can say beyond the last code point. */
inline int Utf8_Decode(const unsigned char *next, const unsigned char *end, uint32_t *codePoint)
{
   const unsigned char lead = next[0];
   const size_t left = static_cast<size_t>(end - next);
   if (lead < 0x80) {
      *codePoint = lead;
      return 1;
   }
   if (lead < 0xE0) {
      if (lead < 0xC2 || left < 2 || !Utf8_IsContinuation(next[1])) {
         return 0;
      }
      *codePoint = (lead & 0x1FU) << 6 | (next[1] & 0x3FU);
      return 2;
   }
   if (lead < 0xF0) {
      if (left < 3 || !Utf8_IsContinuation(next[1]) || !Utf8_IsContinuation(next[2])) {
         return 0;
      }
      *codePoint = (lead & 0x0FU) << 12 | (next[1] & 0x3FU) << 6 | (next[2] & 0x3FU);
      return *codePoint >= 0x800 ? 3 : 0;
   }
   if (lead > 0xF4 || left < 4 || !Utf8_IsContinuation(next[1]) || !Utf8_IsContinuation(next[2]) ||
       !Utf8_IsContinuation(next[3])) {
      return 0;
   }
   *codePoint = (lead & 0x07U) << 18 | (next[1] & 0x3FU) << 12 | (next[2] & 0x3FU) << 6 | (next[3] & 0x3FU);
   return *codePoint >= 0x10000 ? 4 : 0;
}

/* Writes the code point (at most 0x1FFFFF; surrogates like any value) as 1 to 4 bytes and returns the end of them. There
   must be room for four bytes: all are stored at once, whatever the length. */
inline char *Utf8_Encode(uint32_t codePoint, char *out)
{
   const auto store = [out](uint32_t bytes, int length) {
      memcpy(out, &bytes, sizeof bytes);
      return out + length;
   };
   if (codePoint < 0x80) {
      return store(codePoint, 1);
   }
   if (codePoint < 0x800) {
      return store(0x80C0 | codePoint >> 6 | (codePoint & 0x3F) << 8, 2);
   }
   if (codePoint < 0x10000) {
      return store(0x8080E0 | codePoint >> 12 | (codePoint >> 6 & 0x3F) << 8 | (codePoint & 0x3F) << 16, 3);
   }
   return store(0x808080F0 | codePoint >> 18 | (codePoint >> 12 & 0x3F) << 8 | (codePoint >> 6 & 0x3F) << 16 |
                    (codePoint & 0x3F) << 24,
                4);
}

#endif
