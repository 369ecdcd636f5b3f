#include "lib/unicode/unicodeSimpleOperations.h"

#include "base/owned.h"
#include "base/unicode.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"
#include "lib/unicode/data/caseFolding.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <algorithm>
#include <cstdarg>
#include <span>

namespace {

constexpr const char *MODULE = "lib/unicode/unicodeSimpleOperations";

/* A string decoded to code points; lives as long as the operation on it. */
struct UnicodeCodePoints {
   Owned<uint32_t> units; /* zero-terminated */
   size_t count;
};

[[noreturn]] void UnicodePanicInvalid(const char *routine, const char *string)
{
   Panic("%s: invalid UTF8 string @ %p\n", routine, static_cast<const void *>(string));
}

UnicodeCodePoints UnicodeDecode(const char *routine, const char *string)
{
   uint32_t *units = nullptr;
   if (!CodeSet_Utf8ToUtf32(string, &units)) {
      UnicodePanicInvalid(routine, string);
   }
   size_t count = 0;
   while (units[count] != 0) {
      count++;
   }
   return {Owned<uint32_t>(units), count};
}

size_t UnicodeClampStart(size_t count, ssize_t start)
{
   return std::min(static_cast<size_t>(start), count);
}

/* The range as far as it lies within the string. */
std::span<uint32_t> UnicodeSlice(const UnicodeCodePoints &string, ssize_t start, ssize_t length)
{
   const std::span<uint32_t> all(string.units.get(), string.count);
   const size_t from = UnicodeClampStart(string.count, start);
   return all.subspan(from, std::min(static_cast<size_t>(length), string.count - from));
}

bool UnicodeIsWhole(ssize_t start, ssize_t length)
{
   return start == 0 && length == -1;
}

/* The range of a string as UTF-16, zero-terminated. Null for a null string. */
Owned<char16_t> UnicodeRangeAsUtf16(const char *string, ssize_t start, ssize_t length)
{
   Owned<char> cut;
   if (!UnicodeIsWhole(start, length)) {
      cut.reset(Unicode_Substr(string, start, length));
      string = cut.get();
   }
   return Owned<char16_t>(static_cast<char16_t *>(Unicode_GetAllocBytes(string, ENCODING_UTF16_LE)));
}

/* The value by which a unit that differs is ordered: surrogates stand above the rest of the basic plane. */
uint32_t UnicodeWiden(const char16_t *unit, bool ignoreCase)
{
   if (Utf16_IsHighSurrogate(unit[0]) && Utf16_IsLowSurrogate(unit[1])) {
      return Utf16_JoinSurrogates(unit[0], unit[1]);
   }
   return ignoreCase && !Utf16_IsSurrogate(unit[0]) ? CaseFolding_Unit(unit[0]) : unit[0];
}

bool UnicodeUnitsAgree(char16_t unit1, char16_t unit2, bool ignoreCase)
{
   return unit1 == unit2 || (ignoreCase && CaseFolding_Unit(unit1) == CaseFolding_Unit(unit2));
}

int UnicodeCompareUtf16(const char16_t *string1, const char16_t *string2, bool ignoreCase)
{
   for (; UnicodeUnitsAgree(*string1, *string2, ignoreCase); string1++, string2++) {
      if (*string1 == 0) {
         return 0;
      }
   }
   const uint32_t value1 = UnicodeWiden(string1, ignoreCase);
   const uint32_t value2 = UnicodeWiden(string2, ignoreCase);
   if (value1 == value2) {
      Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
   }
   return value1 < value2 ? -1 : 1;
}

} // namespace

char *Unicode_Substr(const char *string, ssize_t start, ssize_t length)
{
   if (string == nullptr) {
      return nullptr;
   }
   const UnicodeCodePoints decoded = UnicodeDecode("Unicode_Substr", string);
   const std::span<uint32_t> slice = UnicodeSlice(decoded, start, length);

   /* The array goes on with a zero, which may be overwritten: nothing of it is wanted behind the slice. */
   slice.data()[slice.size()] = 0;
   char *cut = nullptr;
   if (!CodeSet_Utf32ToUtf8(slice.data(), &cut)) {
      UnicodePanicInvalid("Unicode_Substr", string);
   }
   return cut;
}

ssize_t Unicode_FindSubstrInRange(const char *string, ssize_t start, ssize_t length, const char *substring,
                                  ssize_t substringStart, ssize_t substringLength)
{
   const UnicodeCodePoints decoded = UnicodeDecode("Unicode_FindSubstrInRange", string);
   const UnicodeCodePoints decodedSubstring = UnicodeDecode("Unicode_FindSubstrInRange", substring);
   const std::span<uint32_t> range = UnicodeSlice(decoded, start, length);
   const std::span<uint32_t> sought = UnicodeSlice(decodedSubstring, substringStart, substringLength);
   const auto found = std::search(range.begin(), range.end(), sought.begin(), sought.end());
   if (found == range.end() && !sought.empty()) {
      return -1;
   }
   return range.data() - decoded.units.get() + (found - range.begin());
}

ssize_t Unicode_FindLastSubstrInRange(const char *string, ssize_t start, ssize_t length,
                                      const char *substring, ssize_t substringStart, ssize_t substringLength)
{
   const UnicodeCodePoints decoded = UnicodeDecode("Unicode_FindLastSubstrInRange", string);
   const UnicodeCodePoints decodedSubstring = UnicodeDecode("Unicode_FindLastSubstrInRange", substring);
   const std::span<uint32_t> range = UnicodeSlice(decoded, start, length);
   const std::span<uint32_t> sought = UnicodeSlice(decodedSubstring, substringStart, substringLength);
   const ssize_t rangeStart = range.data() - decoded.units.get();
   if (sought.empty()) {
      return rangeStart;
   }
   const auto found = std::find_end(range.begin(), range.end(), sought.begin(), sought.end());
   return found == range.end() ? -1 : rangeStart + (found - range.begin());
}

char *Unicode_ReplaceRange(const char *destination, ssize_t start, ssize_t length, const char *source,
                           ssize_t sourceStart, ssize_t sourceLength)
{
   const ssize_t count = CodeSet_LengthInCodePoints(destination);
   if (count < 0) {
      UnicodePanicInvalid("Unicode_Substr", destination);
   }
   const auto from = static_cast<ssize_t>(UnicodeClampStart(static_cast<size_t>(count), start));
   const ssize_t rest = length < 0 || length > count - from ? count : from + length;
   const Owned<char> before(Unicode_Substr(destination, 0, from));
   const Owned<char> replacement(Unicode_Substr(source, sourceStart, sourceLength));
   const Owned<char> after(Unicode_Substr(destination, rest, -1));
   return Unicode_Join(before.get(), replacement.get(), after.get(), nullptr);
}

char *Unicode_Join(const char *first, ...)
{
   Owned<char> joined(Util_SafeStrdup(first));
   va_list further;
   va_start(further, first);
   while (joined != nullptr) {
      const char *next = va_arg(further, const char *);
      if (next == nullptr) {
         break;
      }
      joined.reset(Str_Asprintf(nullptr, "%s%s", joined.get(), next));
      if (joined == nullptr) {
         Panic("Unrecoverable memory allocation failure\n");
      }
   }
   va_end(further);
   return joined.release();
}

int Unicode_CompareRange(const char *string1, ssize_t start1, ssize_t length1, const char *string2,
                         ssize_t start2, ssize_t length2, bool ignoreCase)
{
   const Owned<char16_t> units1 = UnicodeRangeAsUtf16(string1, start1, length1);
   const Owned<char16_t> units2 = UnicodeRangeAsUtf16(string2, start2, length2);
   if (units1 == nullptr || units2 == nullptr) {
      return -1;
   }
   return UnicodeCompareUtf16(units1.get(), units2.get(), ignoreCase);
}
