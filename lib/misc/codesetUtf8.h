#ifndef TESSEL_LIB_MISC_CODESETUTF8_H
#define TESSEL_LIB_MISC_CODESETUTF8_H

#include <cstddef>
#include <cstdint>

/* Single UTF-8 sequences, inline for the loops of the codeset layer. */

constexpr uint32_t UNICODE_LAST_CODE_POINT = 0x10FFFF;

constexpr bool CodeSetIsSurrogate(uint32_t codePoint)
{
   return (codePoint & 0xFFFFF800) == 0xD800;
}

constexpr bool CodeSetIsHighSurrogate(uint32_t unit)
{
   return (unit & 0xFFFFFC00) == 0xD800;
}

constexpr bool CodeSetIsLowSurrogate(uint32_t unit)
{
   return (unit & 0xFFFFFC00) == 0xDC00;
}

constexpr uint32_t CodeSetJoinSurrogates(uint32_t high, uint32_t low)
{
   return (high << 10) + low - 0x35FDC00;
}

constexpr bool CodeSetIsContinuation(unsigned char byte)
{
   return (byte & 0xC0) == 0x80;
}

/* CodeSet_GetUtf8 over unsigned bytes. next must be before end. */
inline int CodeSetDecodeUtf8(const unsigned char *next, const unsigned char *end, uint32_t *codePoint)
{
   const unsigned char lead = next[0];
   const size_t left = static_cast<size_t>(end - next);
   if (lead < 0x80) {
      *codePoint = lead;
      return 1;
   }
   if (lead < 0xE0) {
      if (lead < 0xC2 || left < 2 || !CodeSetIsContinuation(next[1])) {
         return 0;
      }
      *codePoint = (lead & 0x1FU) << 6 | (next[1] & 0x3FU);
      return 2;
   }
   if (lead < 0xF0) {
      if (left < 3 || !CodeSetIsContinuation(next[1]) || !CodeSetIsContinuation(next[2])) {
         return 0;
      }
      *codePoint = (lead & 0x0FU) << 12 | (next[1] & 0x3FU) << 6 | (next[2] & 0x3FU);
      return *codePoint >= 0x800 ? 3 : 0;
   }
   if (lead > 0xF4 || left < 4 || !CodeSetIsContinuation(next[1]) || !CodeSetIsContinuation(next[2]) ||
       !CodeSetIsContinuation(next[3])) {
      return 0;
   }
   *codePoint = (lead & 0x07U) << 18 | (next[1] & 0x3FU) << 12 | (next[2] & 0x3FU) << 6 | (next[3] & 0x3FU);
   return *codePoint >= 0x10000 ? 4 : 0;
}

/* Writes the code point (at most 0x1FFFFF; surrogates like any value) as 1 to 4 bytes and returns the end of them. */
inline char *CodeSetEncodeUtf8(uint32_t codePoint, char *out)
{
   if (codePoint < 0x80) {
      *out++ = static_cast<char>(codePoint);
      return out;
   }
   if (codePoint < 0x800) {
      *out++ = static_cast<char>(0xC0 | codePoint >> 6);
   } else {
      if (codePoint < 0x10000) {
         *out++ = static_cast<char>(0xE0 | codePoint >> 12);
      } else {
         *out++ = static_cast<char>(0xF0 | codePoint >> 18);
         *out++ = static_cast<char>(0x80 | (codePoint >> 12 & 0x3F));
      }
      *out++ = static_cast<char>(0x80 | (codePoint >> 6 & 0x3F));
   }
   *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
   return out;
}

#endif
