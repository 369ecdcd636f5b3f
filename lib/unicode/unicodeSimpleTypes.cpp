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

using RowIndex = size_t;

/* From names as callers spelled them to row indices. */
std::atomic<HashTable *> nameCache{nullptr};

std::atomic<EncodingId> currentEncoding{ENCODING_UNKNOWN};

HashTable *NameCache()
{
   return HashTable_AllocOnce(&nameCache, CACHE_BUCKETS,
                              HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY, nullptr);
}

template <typename Matches> std::optional<RowIndex> FindRowByName(Matches matches)
{
   for (RowIndex i = 0; i < encodingRows.size(); i++) {
      for (const char *const *name = encodingRows[i].names.data(); *name != nullptr; name++) {
         if (matches(*name)) {
            return i;
         }
      }
   }
   return std::nullopt;
}

/* The row of a name that is "windows-" or "Windows-" and a code page. */
std::optional<RowIndex> FindWindowsCodePage(const char *name)
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
   for (RowIndex i = 0; codePage != NO_CODE_PAGE && i < encodingRows.size(); i++) {
      if (encodingRows[i].windowsCodePage == codePage) {
         return i;
      }
   }
   return std::nullopt;
}

int IsKeptInLooseForm(char character)
{
   return isalnum(static_cast<unsigned char>(character));
}

char ToLower(char character)
{
   return static_cast<char>(tolower(static_cast<unsigned char>(character)));
}

/* The letters and digits of a name, in lower case. */
Owned<char> LooseForm(const char *name)
{
   Owned<char> loose(static_cast<char *>(Util_SafeMalloc(strlen(name) + 1)));
   char *out = loose.get();
   for (; *name != '\0'; name++) {
      if (IsKeptInLooseForm(*name) != 0) {
         *out++ = ToLower(*name);
      }
   }
   *out = '\0';
   return loose;
}

/* Whether the loose form of name is this one; made on the fly, as a miss looks at more than a thousand names. */
bool HasLooseForm(const char *name, const char *loose)
{
   for (; *name != '\0'; name++) {
      if (IsKeptInLooseForm(*name) != 0 && ToLower(*name) != *loose++) {
         return false;
      }
   }
   return *loose == '\0';
}

std::optional<RowIndex> FindRow(const char *name)
{
   if (const auto row = FindWindowsCodePage(name)) {
      return row;
   }
   if (const auto row = FindRowByName([name](const char *other) { return strcmp(name, other) == 0; })) {
      return row;
   }
   const Owned<char> loose = LooseForm(name);
   return FindRowByName([&loose](const char *other) { return HasLooseForm(other, loose.get()); });
}

EncodingId EncodingOfRow(RowIndex row)
{
   return encodingRows[row].usable ? encodingRows[row].encoding : ENCODING_UNKNOWN;
}

} // namespace

EncodingId UnicodeIANALookup(const char *name)
{
   HashTable *cache = NameCache();
   void *cached = nullptr;
   if (HashTable_Lookup(cache, name, &cached)) {
      return EncodingOfRow(reinterpret_cast<RowIndex>(cached));
   }
   const std::optional<RowIndex> row = FindRow(name);
   if (!row) {
      Log("%s: Did not find an IANA match for encoding \"%s\"\n", "UnicodeIANALookup", name);
      return ENCODING_UNKNOWN;
   }
   HashTable_Insert(cache, name, reinterpret_cast<void *>(*row));
   return EncodingOfRow(*row);
}

void UnicodeIANACacheFree()
{
   HashTable_Free(nameCache.exchange(nullptr));
}

const char *Unicode_EncodingEnumToName(EncodingId encoding)
{
   encoding = Unicode_ResolveEncoding(encoding);
   for (const EncodingRow &row : encodingRows) {
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
   EncodingId current = currentEncoding.load(std::memory_order_relaxed);
   if (current == ENCODING_UNKNOWN) {
      current = Unicode_GetCurrentEncodingUncached();
      currentEncoding.store(current, std::memory_order_relaxed);
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
