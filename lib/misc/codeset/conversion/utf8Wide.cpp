/* For x86_64 with AVX2. The method is that of John Keiser and Daniel Lemire, "Validating UTF-8 In Less Than One
   Instruction Per Byte" (2021): three tables, looked up by half bytes of each byte and of the one before it,
   say which errors their pair can be part of; where all three agree, it is one. */

#include "lib/misc/codeset/conversion/utf8.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <immintrin.h>

#define AVX2 [[gnu::target("avx2")]]

namespace {

constexpr size_t STEP = 32;

/* What can be wrong with a byte and the one before it. */
enum CodeSetPairError : uint8_t {
   TOO_SHORT = 1 << 0,      /* a lead or ASCII behind a lead */
   TOO_LONG = 1 << 1,       /* a continuation behind ASCII */
   OVERLONG_3 = 1 << 2,     /* E0 80..9F */
   TOO_LARGE = 1 << 3,      /* F4 90..BF, F5..FF 90..BF */
   SURROGATE = 1 << 4,      /* ED A0..BF */
   OVERLONG_2 = 1 << 5,     /* C0 or C1, and a continuation */
   TOO_LARGE_1000 = 1 << 6, /* F5..FF 80..8F */
   OVERLONG_4 = 1 << 6,     /* F0 80..8F: the rows that tell it from the last one are not the same */
   CONTINUATIONS = 1 << 7,  /* two: no error where a sequence of three or four asks for the second */
};

using CodeSetTable = std::array<uint8_t, 16>;

constexpr CodeSetTable FIRST_HIGH = [] {
   CodeSetTable table{};
   for (size_t half = 0; half < 8; half++) {
      table[half] = TOO_LONG;
   }
   for (size_t half = 8; half < 12; half++) {
      table[half] = CONTINUATIONS;
   }
   table[0xC] = TOO_SHORT | OVERLONG_2;
   table[0xD] = TOO_SHORT;
   table[0xE] = TOO_SHORT | OVERLONG_3 | SURROGATE;
   table[0xF] = TOO_SHORT | TOO_LARGE | TOO_LARGE_1000 | OVERLONG_4;
   return table;
}();

constexpr CodeSetTable FIRST_LOW = [] {
   constexpr uint8_t any = TOO_SHORT | TOO_LONG | CONTINUATIONS;
   CodeSetTable table{};
   for (size_t half = 0; half < 16; half++) {
      table[half] = half < 4 ? any : half == 4 ? any | TOO_LARGE : any | TOO_LARGE | TOO_LARGE_1000;
   }
   table[0x0] |= OVERLONG_3 | OVERLONG_2 | OVERLONG_4;
   table[0x1] |= OVERLONG_2;
   table[0xD] |= SURROGATE;
   return table;
}();

constexpr CodeSetTable SECOND_HIGH = [] {
   constexpr uint8_t continuation = TOO_LONG | OVERLONG_2 | CONTINUATIONS;
   CodeSetTable table{};
   table.fill(TOO_SHORT);
   table[0x8] = continuation | OVERLONG_3 | TOO_LARGE_1000 | OVERLONG_4;
   table[0x9] = continuation | OVERLONG_3 | TOO_LARGE;
   table[0xA] = continuation | SURROGATE | TOO_LARGE;
   table[0xB] = table[0xA];
   return table;
}();

/* Vectors are passed about in registers: everything here is inlined into the loop. */
using CodeSetVector = __m256i;

AVX2 inline CodeSetVector CodeSetLoad(const unsigned char *from)
{
   CodeSetVector loaded;
   memcpy(&loaded, from, sizeof loaded);
   return loaded;
}

AVX2 inline CodeSetVector CodeSetLookUp(const CodeSetTable &table, CodeSetVector halves)
{
   __m128i row;
   memcpy(&row, table.data(), sizeof row);
   return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(row), halves);
}

AVX2 inline CodeSetVector CodeSetLowHalves(CodeSetVector bytes)
{
   return _mm256_and_si256(bytes, _mm256_set1_epi8(0x0F));
}

AVX2 inline CodeSetVector CodeSetHighHalves(CodeSetVector bytes)
{
   return CodeSetLowHalves(_mm256_srli_epi16(bytes, 4));
}

/* Each byte's predecessor, DISTANCE bytes before it. */
template <int DISTANCE> AVX2 inline CodeSetVector CodeSetBefore(CodeSetVector bytes, CodeSetVector previous)
{
   return _mm256_alignr_epi8(bytes, _mm256_permute2x128_si256(previous, bytes, 0x21), 16 - DISTANCE);
}

/* Above the limit, the top bit is set. */
AVX2 inline CodeSetVector CodeSetAtLeast(CodeSetVector bytes, int limit)
{
   return _mm256_subs_epu8(bytes, _mm256_set1_epi8(static_cast<char>(limit - 0x80)));
}

/* Not zero where there is an error. A byte two behind a lead of three, or three behind one of four, has to be the second of
   two continuations, and no other may be. */
AVX2 inline CodeSetVector CodeSetErrors(CodeSetVector bytes, CodeSetVector previous)
{
   const CodeSetVector before = CodeSetBefore<1>(bytes, previous);
   const CodeSetVector pairs =
       _mm256_and_si256(_mm256_and_si256(CodeSetLookUp(FIRST_HIGH, CodeSetHighHalves(before)),
                                         CodeSetLookUp(FIRST_LOW, CodeSetLowHalves(before))),
                        CodeSetLookUp(SECOND_HIGH, CodeSetHighHalves(bytes)));
   const CodeSetVector asked = _mm256_or_si256(CodeSetAtLeast(CodeSetBefore<2>(bytes, previous), 0xE0),
                                               CodeSetAtLeast(CodeSetBefore<3>(bytes, previous), 0xF0));
   return _mm256_xor_si256(_mm256_and_si256(asked, _mm256_set1_epi8(static_cast<char>(0x80))), pairs);
}

/* Not zero if a sequence goes on behind these bytes. */
AVX2 inline CodeSetVector CodeSetUnfinished(CodeSetVector bytes)
{
   constexpr std::array<uint8_t, STEP> last = [] {
      std::array<uint8_t, STEP> most{};
      most.fill(0xFF);
      most[STEP - 3] = 0xEF;
      most[STEP - 2] = 0xDF;
      most[STEP - 1] = 0xBF;
      return most;
   }();
   return _mm256_subs_epu8(bytes, CodeSetLoad(last.data()));
}

AVX2 inline bool CodeSetIsAscii(CodeSetVector bytes)
{
   return _mm256_movemask_epi8(bytes) == 0;
}

} // namespace

AVX2 bool CodeSetIsValidUtf8Wide(const unsigned char *text, size_t length)
{
   CodeSetVector errors = _mm256_setzero_si256();
   CodeSetVector previous = errors;
   const unsigned char *const end = text + length;
   for (; static_cast<size_t>(end - text) >= 2 * STEP; text += 2 * STEP) {
      const CodeSetVector first = CodeSetLoad(text);
      const CodeSetVector second = CodeSetLoad(text + STEP);
      if (CodeSetIsAscii(_mm256_or_si256(first, second))) {
         errors = _mm256_or_si256(errors, CodeSetUnfinished(previous));
      } else {
         errors = _mm256_or_si256(
             errors, _mm256_or_si256(CodeSetErrors(first, previous), CodeSetErrors(second, first)));
      }
      previous = second;
   }
   /* The rest, with zeros behind it: they show a sequence that does not end. */
   std::array<unsigned char, 2 * STEP + STEP> rest{};
   memcpy(rest.data(), text, static_cast<size_t>(end - text));
   for (size_t at = 0; at < rest.size(); at += STEP) {
      const CodeSetVector bytes = CodeSetLoad(&rest[at]);
      errors = _mm256_or_si256(errors, CodeSetErrors(bytes, previous));
      previous = bytes;
   }
   return _mm256_testz_si256(errors, errors) != 0;
}
