#include "lib/misc/escape.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/misc/rankedLock.h"

#include "tests/support/testSupport.h"

#include <bit>
#include <cstring>
#include <map>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_view_literals;

TEST(DynBuf, GrowsByTheRuleAndKeepsItsContent)
{
   OwnedDynBuf buffer;
   std::string expected;
   EXPECT_TRUE(DynBuf_Append(&buffer, nullptr, 0) && buffer.data == nullptr);
   for (const auto &[length, capacity] :
        {std::pair{1UL, 128UL}, {127, 128}, {300, 428}, {261715, 262143}, {1, 524286}, {262143, 786430}}) {
      expected.append(length, static_cast<char>('a' + expected.size() % 26));
      ASSERT_TRUE(DynBuf_Append(&buffer, &expected[expected.size() - length], length));
      EXPECT_EQ(std::string_view(buffer.data, buffer.size), expected);
      EXPECT_EQ(buffer.allocated, capacity);
   }
   EXPECT_FALSE(DynBuf_Append(&buffer, "", SIZE_MAX));
   DynBuf full = {.data = buffer.data, .size = UINT64_MAX - 1, .allocated = UINT64_MAX - 1};
   EXPECT_FALSE(DynBuf_Append(&full, "ab", 2) || DynBuf_Enlarge(&full, 0));
   EXPECT_EQ(full.size + full.allocated, 2 * (UINT64_MAX - 1)) << "a failure changes nothing";
}

TEST(DynBuf, BlocksChangeHands)
{
   OwnedDynBuf buffer;
   EXPECT_EQ(DynBuf_SafeEnlarge(&buffer, 200, "some/file", 7), buffer.data);
   EXPECT_EQ(buffer.allocated, 200U);
   DynBuf_SafeAppend(&buffer, "old", 3, "some/file", 7);
   DynBuf_Attach(&buffer, 3, strdup("new"));
   EXPECT_TRUE(buffer.size == 3 && buffer.allocated == 3);
   OwnedDynBuf copy;
   ASSERT_TRUE(DynBuf_Enlarge(&buffer, 0) && DynBuf_Copy(&buffer, &copy));
   EXPECT_TRUE(copy.data != buffer.data && copy.size == 3 && copy.allocated == 6);
   ASSERT_TRUE(DynBuf_Trim(&copy));
   EXPECT_EQ(copy.allocated, 3U);
   EXPECT_EQ(Take(DynBuf_DetachString(&copy)), "new") << "where there is no room for the NUL";
   EXPECT_TRUE(copy.data == nullptr && copy.size == 3 && copy.allocated == 0);
   DynBuf_Init(&copy);
   EXPECT_TRUE(DynBuf_Copy(&copy, &copy) && copy.data == nullptr);
   EXPECT_EQ(Take(DynBuf_DetachString(&copy)), "");
   ASSERT_TRUE(DynBuf_Enlarge(&copy, 0) && DynBuf_Trim(&copy) && copy.data == nullptr);
}

/* The result, which a NUL has to follow at the length given. */
template <typename Routine, typename... First>
std::string Output(Routine routine, std::string_view input, const First &...first)
{
   size_t length = SIZE_MAX;
   const std::unique_ptr<char, Freed> text(routine(first..., input.data(), input.size(), &length));
   return text.get()[length] == '\0' ? std::string(text.get(), length) : "<no NUL>";
}

std::string Octal(std::string text)
{
   Escape_UnescapeOctalInPlace(text.data());
   return text.c_str();
}

TEST(Escape, ExamplesOfEveryRoutine)
{
   EscapeTable table = {};
   for (const char byte : "\t\n\\\x7F\xAB\xFF") {
      table[static_cast<unsigned char>(byte)] = -1;
   }
   EXPECT_EQ(Output(Escape_Bytes, "A\n\xFF\0~\x7F\\ z"sv, "\\x", table), "A\\x0A\\xFF\\x00~\\x7F\\x5C z");
   EXPECT_EQ(Output(Escape_BytesWithChar, "a\tb\xAB", '%', table), "a%09b%AB");
   EXPECT_EQ(Output(Escape_Unescape, "a%41b%fF%Ff%00%7c", '%'), "aAb\xFF\xFF\0|"sv);
   EXPECT_EQ(Output(Escape_Unescape, "%4%41", '%'), "%4%41");
   EXPECT_EQ(Output(Escape_Unescape, "%4G%41%%41%%%41%4", '%'), "%4GA%%41%%A%4");
   EXPECT_EQ(Output(Escape_Unescape, "%g1%@1%/1%:1%`1", '%'), "%g1%@1%/1%:1%`1");
   EXPECT_EQ(Output(Escape_Unescape, "a41aaa", 'a'), "A\xAA");
   EXPECT_EQ(Output(Escape_StripCarriageReturns, "\r\n\r\r\nb\r\n"), "\n\r\nb\n");
   EXPECT_EQ(Output(Escape_StripCarriageReturns, "a\rb\n\r"), "a\rb\n\r");
   EXPECT_EQ(Output(Escape_ShellQuote, ""), "''");
   EXPECT_EQ(Output(Escape_ShellQuote, "it's'"), R"('it'"'"'s'"'"'')");
   EXPECT_EQ(Output(Escape_RegexMetachars, "a$*.[\\]^b+?(){}|/-\0."sv),
             "a\\$\\*\\.\\[\\\\\\]\\^b+?(){}|/-\0\\."sv);
   EXPECT_EQ(Take(Escape_StripEscapeChar('\\', "a\\,b\\\\\\\\x\\")), "a,b\\\\x");
   EXPECT_EQ(Take(Escape_CommaAndBackslash("a,b\\c")), "a\\,b\\\\c");
   EXPECT_EQ(Escape_CommaAndBackslash(nullptr), nullptr);
   EXPECT_EQ(Octal(R"(a\\b\nc\1018\060\\101\777)"), "a\\b\ncA80\\101\xFF");
   EXPECT_EQ(Octal(R"(\10 \180 \108\ 12\q\)"), R"(\10 \180 \108\ 12\q\)");

   char buffer[] = "%41xyz";
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', buffer, 4, buffer, 2));
   EXPECT_STREQ(buffer, "%41xyz");
   EXPECT_TRUE(Escape_UnescapeToBuffer('%', buffer, 4, buffer, 3));
   EXPECT_EQ(std::string(buffer, 6), "Ax\0xyz"sv);
}

TEST(Escape, FindUnescapedSkipsWhatIsEscaped)
{
   const auto find = [](const char *string, char sought) {
      const char *found = Escape_FindUnescaped('\\', string, sought);
      return found != nullptr ? found - string : -1;
   };
   EXPECT_EQ(find("a,b", ','), 1);
   EXPECT_EQ(find("a\\,b,", ','), 4);
   EXPECT_EQ(find("\\\\,", ','), 2);
   EXPECT_EQ(find("a\\", ','), -1) << "an escape ends the text";
   EXPECT_EQ(find("a\\\\b", '\\'), -1) << "never found itself";
   EXPECT_EQ(find("\\\\\\,", ','), -1);
}

using OwnedTable = std::unique_ptr<HashTable, decltype([](HashTable *table) { HashTable_Free(table); })>;
using Values = std::vector<void *>;

/* The values that a table has discarded, in order. */
Values sDiscarded;

void *Number(uintptr_t number)
{
   return std::bit_cast<void *>(number);
}

Values ValuesOf(const OwnedTable &table)
{
   void **array = nullptr;
   size_t size = 7;
   HashTable_ValueArray(table.get(), &array, &size);
   const std::unique_ptr<void *, Freed> owned(array);
   return Values(array, array + size);
}

/* The definition of the order, spelled out: where a key belongs. */
uint32_t ExpectedBucket(uint32_t keyType, const void *key, uint32_t bits)
{
   uint32_t h = 0;
   if (keyType == HASH_INT_KEY) {
      const auto k = std::bit_cast<uint64_t>(key);
      h = static_cast<uint32_t>(((k >> 32) ^ k) * 48271);
   } else {
      for (const auto *c = static_cast<const unsigned char *>(key); *c != 0; c++) {
         h = std::rotl(h ^ static_cast<uint32_t>(keyType == HASH_ISTRING_KEY ? tolower(*c) : *c), 5);
      }
   }
   const uint32_t m = (1U << bits) - 1;
   while (bits > 0 && h > m) {
      h = (h >> bits) ^ (h & m);
   }
   return h & m;
}

/* Distinct even without regard to case; of all lengths and bytes. */
std::vector<std::string> SampleKeys(size_t count)
{
   std::vector<std::string> keys = {""};
   for (size_t i = 1; i < count; i++) {
      keys.push_back(std::to_string(i) + std::string(i % 40, static_cast<char>(i * 7 % 255 + 1)));
   }
   return keys;
}

TEST(HashTable, OrderIsByBucketAndLastInsertedFirst)
{
   const std::vector<std::string> names = SampleKeys(300);
   for (const uint32_t keyType : {HASH_STRING_KEY, HASH_ISTRING_KEY, HASH_INT_KEY}) {
      for (const uint32_t bits : {0U, 1U, 2U, 5U, 7U, 14U, 16U, 20U}) {
         const OwnedTable table(HashTable_Alloc(1U << bits, keyType, nullptr));
         std::map<std::pair<uint32_t, uintptr_t>, void *> order;
         for (uintptr_t i = 0; i < names.size(); i++) {
            const void *key = keyType == HASH_INT_KEY ? Number(i * 0x9E3779B97F4A7C15) : names[i].c_str();
            ASSERT_TRUE(HashTable_Insert(table.get(), key, Number(i)));
            order[{ExpectedBucket(keyType, key, bits), ~i}] = Number(i);
         }
         Values expected;
         for (const auto &[place, value] : order) {
            expected.push_back(value);
         }
         EXPECT_EQ(ValuesOf(table), expected) << keyType << " " << bits;
      }
   }
}

/* Keys that differ in one byte or in case only, at every length and place, among them bytes next to the letters. */
TEST(HashTable, KeysAreToldApart)
{
   for (const uint32_t keyType : {HASH_STRING_KEY, HASH_ISTRING_KEY}) {
      const OwnedTable table(HashTable_Alloc(2, keyType | HASH_FLAG_COPYKEY, nullptr));
      for (size_t length = 1; length < 40; length++) {
         std::string key(length, 'k');
         HashTable_Insert(table.get(), key.c_str(), nullptr);
         for (char &byte : key) {
            for (const char other : {'@', 'K', '[', '`', '{', '\x01', '\xCB', '\xEB', 'k'}) {
               byte = other;
               EXPECT_EQ(HashTable_Lookup(table.get(), key.c_str(), nullptr),
                         other == 'k' || (other == 'K' && keyType == HASH_ISTRING_KEY));
            }
         }
      }
      /* Equal hashes: of pairs of bytes that cancel each other out, and, 32 bytes apart, of bytes that change places. */
      const std::string between(31, 'k');
      HashTable_Insert(table.get(), ("a" + between + "b").c_str(), nullptr);
      for (const std::string &other : {std::string(64 + 5, 'k'), "b" + between + "a"}) {
         EXPECT_FALSE(HashTable_Lookup(table.get(), other.c_str(), nullptr)) << other;
      }
   }
   const OwnedTable table(HashTable_Alloc(2, HASH_INT_KEY, nullptr));
   HashTable_Insert(table.get(), Number(1), nullptr);
   EXPECT_FALSE(HashTable_Lookup(table.get(), Number(0x100000000), nullptr)) << "the same hash";
}

TEST(HashTable, ServesOneThreadInBothModes)
{
   for (const uint32_t mode : {0U, HASH_FLAG_ATOMIC}) {
      sDiscarded.clear();
      const auto discard = [](void *value) { sDiscarded.push_back(value); };
      OwnedTable owned(HashTable_Alloc(4, mode | HASH_STRING_KEY, discard));
      HashTable *table = owned.get();
      uintptr_t next = 0;
      for (const char *key : {"a", "b", "c", "d", "e", "f", "g", "h", "i"}) {
         EXPECT_EQ(HashTable_LookupOrInsert(table, key, Number(next)), Number(next));
         next++;
      }
      EXPECT_FALSE(HashTable_ReplaceOrInsert(table, "other", Number(9)));
      EXPECT_FALSE(HashTable_Insert(table, "b", Number(20)));
      EXPECT_EQ(HashTable_LookupOrInsert(table, "b", Number(20)), Number(1));
      void *value = Number(7);
      EXPECT_FALSE(HashTable_Lookup(table, "absent", &value) ||
                   HashTable_LookupAndDelete(table, "absent", &value) ||
                   HashTable_ReplaceIfEqual(table, "absent", nullptr, Number(20)) ||
                   HashTable_ReplaceIfEqual(table, "c", Number(7), Number(20)));
      EXPECT_EQ(value, Number(7));
      EXPECT_TRUE(HashTable_LookupAndDelete(table, "e", &value) && value == Number(4));
      EXPECT_FALSE(HashTable_Lookup(table, "e", nullptr));
      EXPECT_EQ(sDiscarded, Values{});

      EXPECT_TRUE(HashTable_ReplaceOrInsert(table, "c", Number(21)));
      EXPECT_TRUE(HashTable_ReplaceIfEqual(table, "c", Number(21), Number(22)));
      EXPECT_TRUE(HashTable_Lookup(table, "c", &value) && value == Number(22));
      EXPECT_TRUE(HashTable_Delete(table, "a") && HashTable_LookupAndDelete(table, "i", nullptr));
      EXPECT_EQ(std::exchange(sDiscarded, {}), (Values{Number(2), Number(21), Number(0), Number(8)}));
      const Values rest = ValuesOf(owned);
      EXPECT_EQ(rest.size(), 7U);
      HashTable_Clear(table);
      EXPECT_EQ(std::exchange(sDiscarded, {}), rest);
      EXPECT_EQ(ValuesOf(owned), Values{});
      EXPECT_TRUE(HashTable_Insert(table, "b", Number(9)));
      HashTable_FreeUnsafe(owned.release());
      EXPECT_EQ(sDiscarded, Values{Number(9)});
   }
}

/* The old value is still in the table while it is discarded: it is freed before the new one is stored. */
TEST(HashTable, PlainReplacementFreesFirst)
{
   static HashTable *sTable;
   static void *sSeen;
   const auto look = [](void *) { HashTable_Lookup(sTable, Number(1), &sSeen); };
   const OwnedTable table(sTable = HashTable_Alloc(2, HASH_INT_KEY | HASH_FLAG_COPYKEY, look));
   HashTable_Insert(sTable, Number(1), Number(10));
   HashTable_ReplaceOrInsert(sTable, Number(1), Number(20));
   EXPECT_EQ(sSeen, Number(10));
   HashTable_ReplaceIfEqual(sTable, Number(1), Number(20), Number(30));
   EXPECT_EQ(sSeen, Number(20));
}

TEST(HashTable, StoredKeysAreCopiesOrTheCallers)
{
   const auto stop = [](const void *key, void *value, void *seen) {
      *static_cast<std::string *>(seen) += static_cast<const char *>(key);
      return value == Number(1) ? 42 : 0;
   };
   for (const uint32_t flag : {0U, HASH_FLAG_COPYKEY}) {
      const OwnedTable table(HashTable_Alloc(1, HASH_ISTRING_KEY | flag, nullptr));
      char key[] = "first";
      HashTable_Insert(table.get(), "second", nullptr);
      HashTable_Insert(table.get(), key, Number(1));
      key[0] = 'F';
      std::string seen;
      EXPECT_EQ(HashTable_ForEach(table.get(), stop, &seen), 42);
      const void **keys = nullptr;
      size_t size = 0;
      HashTable_KeyArray(table.get(), &keys, &size);
      EXPECT_TRUE(size == 2 && (keys[0] == key) == (flag == 0));
      EXPECT_EQ(seen, flag == 0 ? "First" : "first");
      free(keys);
      HashTable_Clear(table.get());
      HashTable_KeyArray(table.get(), &keys, &size);
      EXPECT_TRUE(keys == nullptr && size == 0);
   }
}

TEST(HashTable, EndsTheProcessOnMisuse)
{
   EXPECT_PANIC(HashTable_Free(HashTable_Alloc(96, 0, nullptr)), "HashTable_Alloc only takes powers of 2 \n");
   HashTable_Free(HashTable_Alloc(0, HASH_STRING_KEY, nullptr));
   HashTable_Free(nullptr);
   const OwnedTable table(HashTable_Alloc(8, 3, nullptr));
   EXPECT_PANIC(HashTable_Lookup(table.get(), "a", nullptr), "NOT_REACHED lib/misc/hashTable:[0-9]+\n");
}

/* Interference: a few threads, over and over, on few buckets. Every value is a block of its own: one discarded twice or
   never is seen by the sanitizers and by the sum. The sums are relaxed, or they would order what the table
   has to order. */
TEST(HashTable, LosesNothingToThreads)
{
   static constexpr size_t threads = 4;
   static std::atomic<size_t> sFreed;
   const auto discard = [](void *value) {
      sFreed.fetch_add(1, std::memory_order_relaxed);
      free(value);
   };
   const std::vector<std::string> keys = SampleKeys(100);
   for (int round = 0; round < 60; round++) {
      std::atomic<HashTable *> shared = nullptr; /* takes long enough to make for others to come in */
      const OwnedTable counter(HashTable_Alloc(2, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr));
      HashTable_Insert(counter.get(), Number(1), nullptr);
      std::atomic<size_t> inserted = 0;
      sFreed = 0;
      OnThreads(threads, [&](size_t) {
         constexpr uint32_t flags = HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY;
         HashTable *table = HashTable_AllocOnce(&shared, 1U << 16, flags, discard);
         EXPECT_EQ(table, shared.load());
         for (const std::string &key : keys) {
            const bool old = HashTable_ReplaceOrInsert(table, key.c_str(), strdup("v"));
            inserted.fetch_add(old ? 0 : 1, std::memory_order_relaxed);
            EXPECT_FALSE(HashTable_Insert(table, key.c_str(), nullptr));
            bool added = false;
            while (!added) {
               void *seen = nullptr;
               HashTable_Lookup(counter.get(), Number(1), &seen);
               void *next = Number(std::bit_cast<uintptr_t>(seen) + 1);
               added = HashTable_ReplaceIfEqual(counter.get(), Number(1), seen, next);
            }
         }
      });
      EXPECT_EQ(ValuesOf(counter), Values{Number(threads * keys.size())});
      EXPECT_EQ(inserted, keys.size());
      EXPECT_EQ(sFreed, (threads - 1) * keys.size());
      /* The count may lag behind: removing everything does not take it below 0. */
      EXPECT_LE(HashTable_GetNumElements(shared), keys.size());
      for (const std::string &key : keys) {
         EXPECT_TRUE(HashTable_Delete(shared, key.c_str()));
      }
      EXPECT_EQ(HashTable_GetNumElements(shared), 0U);
      HashTable_Free(shared);
      EXPECT_EQ(sFreed, threads * keys.size());
   }
}

using Lock = std::unique_ptr<RankedLock, decltype([](RankedLock *lock) { RankedLock_Free(lock); })>;

TEST(RankedLock, KeepsThreadsApartAndEndsAProcessThatTakesRanksBackwards)
{
   const Lock low(RankedLock_Create("low", 1));
   const Lock high(RankedLock_Create("high", 0xF0007100));
   const Lock other(RankedLock_Create("other", 0xF0007100));
   int count = 0;
   OnThreads(4, [&](size_t) {
      for (int n = 0; n < 1000; n++) {
         const RankedLockHold outer(low.get());
         const RankedLockHold inner(high.get());
         const RankedLockHold again(low.get());
         count++;
      }
   });
   EXPECT_EQ(4000, count);
#ifdef NDEBUG
   GTEST_SKIP() << "ranks are checked in debug builds";
#endif
   RankedLock_Acquire(low.get());
   RankedLock_Acquire(high.get());
   RankedLock_Release(low.get());
   EXPECT_PANIC(RankedLock_Acquire(low.get()),
                "RankedLock_Acquire: \"low\" of rank 0x1 is taken while \"high\" of "
                "rank 0xF0007100 is held");
   EXPECT_PANIC(RankedLock_Acquire(other.get()), "RankedLock_Acquire: \"other\"");
   RankedLock_Release(high.get());
   RankedLock_Acquire(other.get());
   RankedLock_Release(other.get());
}

} // namespace
