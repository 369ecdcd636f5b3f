#include "lib/misc/codeset/conversion/utf8.h"

#include "base/unicode.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/memory/util.h"
#include "platform/processor.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace {

/* The deterministic automaton of Bjoern Hoehrmann's "Flexible and Economical UTF-8 Decoder": the class of each byte, and
   the next state for a state and a class. State 0 accepts, state 1 rejects for good. */

constexpr size_t CLASS_COLUMNS = 16;
constexpr size_t STATES = 9;
constexpr uint64_t STATE_ACCEPT = 0;

constexpr std::array<uint8_t, 256> CodeSetMakeByteClasses()
{
   struct Range {
      unsigned int first, last;
      uint8_t byteClass;
   };
   constexpr Range ranges[] = {
       {0x00, 0x7F, 0},  {0x80, 0x8F, 1},  {0x90, 0x9F, 9}, {0xA0, 0xBF, 7}, {0xC0, 0xC1, 8},
       {0xC2, 0xDF, 2},  {0xE0, 0xE0, 10}, {0xE1, 0xEC, 3}, {0xED, 0xED, 4}, {0xEE, 0xEF, 3},
       {0xF0, 0xF0, 11}, {0xF1, 0xF3, 6},  {0xF4, 0xF4, 5}, {0xF5, 0xFF, 8},
   };
   std::array<uint8_t, 256> classes{};
   for (const Range &range : ranges) {
      for (unsigned int byte = range.first; byte <= range.last; byte++) {
         classes[byte] = range.byteClass;
      }
   }
   return classes;
}

constexpr std::array<uint8_t, 256> BYTE_CLASS = CodeSetMakeByteClasses();

constexpr uint8_t TRANSITION[STATES][CLASS_COLUMNS] = {
    {0, 1, 2, 3, 5, 8, 7, 1, 1, 1, 4, 6}, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1},
    {1, 0, 1, 1, 1, 1, 1, 0, 1, 0, 1, 1}, {1, 2, 1, 1, 1, 1, 1, 2, 1, 2, 1, 1},
    {1, 1, 1, 1, 1, 1, 1, 2, 1, 1, 1, 1}, {1, 2, 1, 1, 1, 1, 1, 1, 1, 2, 1, 1},
    {1, 1, 1, 1, 1, 1, 1, 3, 1, 3, 1, 1}, {1, 3, 1, 1, 1, 1, 1, 3, 1, 3, 1, 1},
    {1, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1},
};

/* The same automaton for the walk: a row for each byte, holding the next state of all nine states in six bits each, and a
   state held as the position of its bits. A step is then one shift, not two loads that wait for each other.
 */

constexpr unsigned int STATE_BITS = 6;
constexpr uint64_t STATE_MASK = (1U << STATE_BITS) - 1;

constexpr std::array<uint64_t, 256> CodeSetMakeShiftRows()
{
   std::array<uint64_t, 256> rows{};
   for (size_t byte = 0; byte < rows.size(); byte++) {
      for (size_t state = 0; state < STATES; state++) {
         const uint64_t next = TRANSITION[state][BYTE_CLASS[byte]] * uint64_t{STATE_BITS};
         rows[byte] |= next << (state * STATE_BITS);
      }
   }
   return rows;
}

constexpr std::array<uint64_t, 256> SHIFT_ROWS = CodeSetMakeShiftRows();

constexpr size_t BLOCK = 16;

uint64_t CodeSetStep(uint64_t state, unsigned char byte)
{
   return SHIFT_ROWS[byte] >> (state & STATE_MASK);
}

/* Blocks of a size that the compiler knows: the walk is faster by a quarter than over what Ascii_PrefixLength finds. */
bool CodeSetIsAsciiBlock(const unsigned char *block, size_t words)
{
   uint64_t seen = 0;
   for (size_t i = 0; i < words; i++) {
      uint64_t word;
      memcpy(&word, block + i * sizeof word, sizeof word);
      seen |= word;
   }
   return (seen & 0x8080808080808080) == 0;
}

} // namespace

/* Only in the accepting state may ASCII be passed over unseen: it leads from there back to there. */
bool CodeSetIsValidUtf8Portable(const unsigned char *next, size_t length)
{
   constexpr size_t wide = 4 * BLOCK;
   uint64_t state = STATE_ACCEPT;
   while (length >= BLOCK) {
      if ((state & STATE_MASK) == STATE_ACCEPT && CodeSetIsAsciiBlock(next, BLOCK / 8)) {
         next += BLOCK;
         length -= BLOCK;
         while (length >= wide && CodeSetIsAsciiBlock(next, wide / 8)) {
            next += wide;
            length -= wide;
         }
         continue;
      }
      for (size_t i = 0; i < BLOCK; i++) {
         state = CodeSetStep(state, next[i]);
      }
      next += BLOCK;
      length -= BLOCK;
   }
   for (; length > 0; length--) {
      state = CodeSetStep(state, *next++);
   }
   return (state & STATE_MASK) == STATE_ACCEPT;
}

/* A short text is over before the wide steps pay. */
bool CodeSet_IsValidUtf8Buffer(const void *buffer, size_t length)
{
   constexpr size_t worthWideSteps = 64;
   const auto *const text = static_cast<const unsigned char *>(buffer);
   return length >= worthWideSteps && Processor_HasWideRegisters() ? CodeSetIsValidUtf8Wide(text, length)
                                                                   : CodeSetIsValidUtf8Portable(text, length);
}

bool CodeSet_IsValidUtf8(const char *string)
{
   return CodeSet_IsValidUtf8Buffer(string, strlen(string));
}

bool CodeSet_IsValidUtf8NoNul(const void *buffer, size_t length)
{
   return length == 0 || (memchr(buffer, 0, length) == nullptr && CodeSet_IsValidUtf8Buffer(buffer, length));
}

int CodeSet_GetUtf8(const char *string, const char *end, uint32_t *codePoint)
{
   if (string >= end) {
      return 0;
   }
   uint32_t value = 0;
   const int n = Utf8_Decode(reinterpret_cast<const unsigned char *>(string),
                             reinterpret_cast<const unsigned char *>(end), &value);
   if (n != 0 && codePoint != nullptr) {
      *codePoint = value;
   }
   return n;
}

ssize_t CodeSet_LengthInCodePoints(const char *string)
{
   const char *const end = string + strlen(string);
   ssize_t count = 0;
   while (string < end) {
      const int n = CodeSet_GetUtf8(string, end, nullptr);
      if (n == 0) {
         return -1;
      }
      string += n;
      count++;
   }
   return count;
}

ssize_t CodeSet_CodePointOffsetToByteOffset(const char *string, ssize_t codePointOffset)
{
   const char *const end = string + strlen(string);
   const char *next = string;
   for (; codePointOffset > 0; codePointOffset--) {
      const int n = CodeSet_GetUtf8(next, end, nullptr);
      if (n == 0) {
         return -1;
      }
      next += n;
   }
   return next - string;
}

bool CodeSet_Utf8ToUtf32(const char *string, uint32_t **output)
{
   *output = nullptr;
   if (string == nullptr) {
      return true;
   }
   const ssize_t count = CodeSet_LengthInCodePoints(string);
   if (count < 0 || static_cast<uint64_t>(count) >= UINT32_MAX) {
      return false;
   }
   auto *units =
       static_cast<uint32_t *>(Util_SafeMalloc((static_cast<size_t>(count) + 1) * sizeof(uint32_t)));
   const char *const end = string + strlen(string);
   for (ssize_t i = 0; i < count; i++) {
      string += CodeSet_GetUtf8(string, end, &units[i]);
   }
   units[count] = 0;
   *output = units;
   return true;
}

bool CodeSet_Utf32ToUtf8(const uint32_t *string, char **output)
{
   *output = nullptr;
   if (string == nullptr) {
      return true;
   }
   size_t count = 0;
   while (string[count] != 0) {
      count++;
   }
   auto *bytes = static_cast<char *>(Util_SafeMalloc(count * 4 + 1));
   char *next = bytes;
   for (; *string != 0; string++) {
      if (*string > UNICODE_LAST_CODE_POINT) {
         free(bytes);
         return false;
      }
      next = Utf8_Encode(*string, next);
   }
   *next = '\0';
   *output = bytes;
   return true;
}
