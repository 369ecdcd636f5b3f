#include "lib/unicode/unicodeSimpleTypes.h"

#include "base/owned.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/unicode/data/encodingNames.h"

#include <atomic>
#include <cctype>
#include <cstring>
#include <optional>
#include <string_view>

namespace {

constexpr const char *MODULE = "lib/unicode/unicodeSimpleTypes";
constexpr uint32_t CACHE_BUCKETS = 128;
constexpr size_t WINDOWS_PREFIX_LENGTH = 8;

using UnicodeRowIndex = size_t;

/* From names as callers spelled them to row indices. */
std::atomic<HashTable *> sNameCache{nullptr};

std::atomic<EncodingId> sCurrentEncoding{ENCODING_UNKNOWN};

HashTable *UnicodeNameCache()
{
   return HashTable_AllocOnce(&sNameCache, CACHE_BUCKETS,
                              HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, nullptr);
}

template <typename Matches> std::optional<UnicodeRowIndex> UnicodeFindRowByName(Matches matches)
{
   for (UnicodeRowIndex i = 0; i < UNICODE_ENCODINGS.size(); i++) {
      for (const char *const *name = UNICODE_ENCODINGS[i].names.data(); *name != nullptr; name++) {
         if (matches(*name)) {
            return i;
         }
      }
   }
   return std::nullopt;
}

/* The row of a name that is "windows-" or "Windows-" and a code page. */
std::optional<UnicodeRowIndex> UnicodeFindWindowsCodePage(const char *name)
{
   const std::string_view prefix = std::string_view(name).substr(0, WINDOWS_PREFIX_LENGTH);
   if (prefix != "windows-" && prefix != "Windows-") {
      return std::nullopt;
   }
   uint32_t codePage = 0;
   for (const char *digit = name + WINDOWS_PREFIX_LENGTH; *digit != '\0'; digit++) {
      if (*digit < '0' || *digit > '9') {
         return std::nullopt;
      }
      codePage = codePage * 10 + static_cast<uint32_t>(*digit - '0');
   }
   for (UnicodeRowIndex i = 0; codePage != NO_CODE_PAGE && i < UNICODE_ENCODINGS.size(); i++) {
      if (UNICODE_ENCODINGS[i].windowsCodePage == codePage) {
         return i;
      }
   }
   return std::nullopt;
}

int UnicodeIsKeptInLooseForm(char character)
{
   return isalnum(static_cast<unsigned char>(character));
}

char UnicodeToLower(char character)
{
   return static_cast<char>(tolower(static_cast<unsigned char>(character)));
}

/* The letters and digits of a name, in lower case. */
Owned<char> UnicodeLooseForm(const char *name)
{
   Owned<char> loose(static_cast<char *>(Util_SafeMalloc(strlen(name) + 1)));
   char *out = loose.get();
   for (; *name != '\0'; name++) {
      if (UnicodeIsKeptInLooseForm(*name) != 0) {
         *out++ = UnicodeToLower(*name);
      }
   }
   *out = '\0';
   return loose;
}

/* Whether the loose form of name is this one; made on the fly, as a miss looks at more than a thousand names. */
bool UnicodeHasLooseForm(const char *name, const char *loose)
{
   for (; *name != '\0'; name++) {
      if (UnicodeIsKeptInLooseForm(*name) != 0 && UnicodeToLower(*name) != *loose++) {
         return false;
      }
   }
   return *loose == '\0';
}

std::optional<UnicodeRowIndex> UnicodeFindRow(const char *name)
{
   if (const auto row = UnicodeFindWindowsCodePage(name)) {
      return row;
   }
   if (const auto row =
           UnicodeFindRowByName([name](const char *other) { return strcmp(name, other) == 0; })) {
      return row;
   }
   const Owned<char> loose = UnicodeLooseForm(name);
   return UnicodeFindRowByName(
       [&loose](const char *other) { return UnicodeHasLooseForm(other, loose.get()); });
}

EncodingId UnicodeEncodingOfRow(UnicodeRowIndex row)
{
   return UNICODE_ENCODINGS[row].usable ? UNICODE_ENCODINGS[row].encoding : ENCODING_UNKNOWN;
}

} // namespace

EncodingId UnicodeIANALookup(const char *name)
{
   HashTable *cache = UnicodeNameCache();
   void *cached = nullptr;
   if (HashTable_Lookup(cache, name, &cached)) {
      return UnicodeEncodingOfRow(reinterpret_cast<UnicodeRowIndex>(cached));
   }
   const std::optional<UnicodeRowIndex> row = UnicodeFindRow(name);
   if (!row) {
      Log("%s: Did not find an IANA match for encoding \"%s\"\n", "UnicodeIANALookup", name);
      return ENCODING_UNKNOWN;
   }
   HashTable_Insert(cache, name, reinterpret_cast<void *>(*row));
   return UnicodeEncodingOfRow(*row);
}

void UnicodeIANACacheFree()
{
   HashTable_Free(sNameCache.exchange(nullptr));
}

const char *Unicode_EncodingEnumToName(EncodingId encoding)
{
   encoding = Unicode_ResolveEncoding(encoding);
   for (const EncodingRow &row : UNICODE_ENCODINGS) {
      if (row.encoding == encoding) {
         return row.names[static_cast<size_t>(row.preferredIndex)];
      }
   }
   Log("%s: Unknown encoding %d.\n", "Unicode_EncodingEnumToName", encoding);
   Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
}

EncodingId Unicode_ResolveEncoding(EncodingId encoding)
{
   if (encoding != ENCODING_DEFAULT) {
      return encoding;
   }
   EncodingId current = sCurrentEncoding.load(std::memory_order_relaxed);
   if (current == ENCODING_UNKNOWN) {
      current = Unicode_GetCurrentEncodingUncached();
      sCurrentEncoding.store(current, std::memory_order_relaxed);
   }
   return current;
}

EncodingId Unicode_GetCurrentEncoding()
{
   return Unicode_ResolveEncoding(ENCODING_DEFAULT);
}

EncodingId Unicode_GetCurrentEncodingUncached()
{
   return UnicodeIANALookup(CodeSet_GetCurrentCodeSet());
}

bool Unicode_IsEncodingValid(EncodingId encoding)
{
   return static_cast<uint32_t>(encoding) < static_cast<uint32_t>(ENCODING_COUNT);
}
