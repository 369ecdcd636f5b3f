#include "lib/misc/hashTable.h"

#include "tests/support/callFaults.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <barrier>
#include <bit>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <thread>
#include <vector>

namespace {

using OwnedTable = std::unique_ptr<HashTable, decltype([](HashTable *table) { HashTable_Free(table); })>;
using Values = std::vector<void *>;

/* The values that a table has discarded, in order. */
Values sDiscarded;

void Discard(void *value)
{
   sDiscarded.push_back(value);
}

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

/* Distinct even without regard to case; with bytes beyond ASCII, and the empty key. */
std::vector<std::string> SampleKeys(size_t count)
{
   std::mt19937 random(4711);
   std::vector<std::string> keys = {"", "UTF-8", "\xC3\xA9\xFF"};
   while (keys.size() < count) {
      std::string key = std::to_string(keys.size());
      for (size_t length = random() % 40; length > 0; length--) {
         key += static_cast<char>(random() % 255 + 1);
      }
      keys.push_back(key);
   }
   return keys;
}

TEST(HashTable, OrderIsByBucketAndLastInsertedFirst)
{
   const std::vector<std::string> names = SampleKeys(300);
   for (const uint32_t keyType : {HASH_STRING_KEY, HASH_ISTRING_KEY, HASH_INT_KEY}) {
      for (const uint32_t bits : {0U, 1U, 2U, 5U, 7U, 14U, 16U, 20U}) {
         const OwnedTable table(HashTable_Alloc(1U << bits, keyType, nullptr));
         std::map<uint32_t, Values> buckets;
         for (uintptr_t i = 0; i < names.size(); i++) {
            const void *key = keyType == HASH_INT_KEY ? Number(i * 0x9E3779B97F4A7C15) : names[i].c_str();
            ASSERT_TRUE(HashTable_Insert(table.get(), key, Number(i)));
            Values &bucket = buckets[ExpectedBucket(keyType, key, bits)];
            bucket.insert(bucket.begin(), Number(i));
         }
         Values expected;
         for (const auto &[index, bucket] : buckets) {
            expected.insert(expected.end(), bucket.begin(), bucket.end());
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
      for (size_t length = 1; length < 26; length++) {
         std::string key(length, 'k');
         HashTable_Insert(table.get(), key.c_str(), nullptr);
         for (char &byte : key) {
            for (const char other : {'@', 'K', '[', '`', '{', '\x01', '\xCB', '\xEB', 'k'}) {
               byte = other;
               EXPECT_EQ(HashTable_Lookup(table.get(), key.c_str(), nullptr),
                         other == 'k' || (other == 'K' && keyType == HASH_ISTRING_KEY));
            }
         }

         /* Has the same hash: the bytes added come in pairs that cancel each other out. */
         EXPECT_FALSE(HashTable_Lookup(table.get(), (key + std::string(64, 'k')).c_str(), nullptr));
      }
   }
}

TEST(HashTable, ServesOneThreadInBothModes)
{
   for (const uint32_t mode : {0U, HASH_FLAG_ATOMIC}) {
      sDiscarded.clear();
      OwnedTable owned(HashTable_Alloc(4, mode | HASH_STRING_KEY, Discard));
      HashTable *table = owned.get();
      static constexpr const char *keys[] = {"a", "b", "c", "d", "e", "f", "g", "h", "i"};
      for (uintptr_t i = 0; i < std::size(keys); i++) {
         EXPECT_EQ(HashTable_LookupOrInsert(table, keys[i], Number(i)), Number(i));
      }
      EXPECT_FALSE(HashTable_ReplaceOrInsert(table, "other", Number(9)));
      {
         const FailingAllocations faults(1);
         EXPECT_FALSE(HashTable_Insert(table, "b", Number(20)));
         EXPECT_EQ(HashTable_LookupOrInsert(table, "b", Number(20)), Number(1));
      }
      void *value = Number(7);
      EXPECT_FALSE(HashTable_Lookup(table, "absent", &value));
      EXPECT_FALSE(HashTable_LookupAndDelete(table, "absent", &value));
      EXPECT_FALSE(HashTable_ReplaceIfEqual(table, "absent", nullptr, Number(20)));
      EXPECT_FALSE(HashTable_ReplaceIfEqual(table, "c", Number(7), Number(20)));
      EXPECT_EQ(value, Number(7));
      EXPECT_TRUE(HashTable_LookupAndDelete(table, "e", &value));
      EXPECT_EQ(value, Number(4));
      EXPECT_FALSE(HashTable_Lookup(table, "e", nullptr));
      EXPECT_EQ(sDiscarded, Values{});

      EXPECT_TRUE(HashTable_ReplaceOrInsert(table, "c", Number(21)));
      EXPECT_TRUE(HashTable_ReplaceIfEqual(table, "c", Number(21), Number(22)));
      EXPECT_TRUE(HashTable_Lookup(table, "c", &value));
      EXPECT_EQ(value, Number(22));
      EXPECT_TRUE(HashTable_Delete(table, "a"));
      EXPECT_TRUE(HashTable_LookupAndDelete(table, "i", nullptr));
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
   const OwnedTable table(HashTable_Alloc(2, HASH_INT_KEY | HASH_FLAG_COPYKEY,
                                          [](void *) { HashTable_Lookup(sTable, Number(1), &sSeen); }));
   sTable = table.get();
   HashTable_Insert(sTable, Number(1), Number(10));
   HashTable_ReplaceOrInsert(sTable, Number(1), Number(20));
   EXPECT_EQ(sSeen, Number(10));
   HashTable_ReplaceIfEqual(sTable, Number(1), Number(20), Number(30));
   EXPECT_EQ(sSeen, Number(20));
}

TEST(HashTable, StoredKeysAreCopiesOrTheCallers)
{
   const auto stop = [](const char *key, void *value, void *seen) {
      *static_cast<std::string *>(seen) += key;
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
   }
}

TEST(HashTable, EndsTheProcessOnMisuseAndExhaustion)
{
   EXPECT_PANIC(HashTable_Free(HashTable_Alloc(96, 0, nullptr)), "HashTable_Alloc only takes powers of 2 \n");
   HashTable_Free(HashTable_Alloc(0, HASH_STRING_KEY, nullptr));
   HashTable_Free(nullptr);
   const OwnedTable table(HashTable_Alloc(8, 3, nullptr));
   EXPECT_PANIC(HashTable_Lookup(table.get(), "a", nullptr), "NOT_REACHED lib/misc/hashTable:[0-9]+\n");
   for (const int allocation : {1, 2, 3}) {
      const FailingAllocations faults(allocation);
      EXPECT_PANIC(HashTable_Insert(OwnedTable(HashTable_Alloc(8, 0, nullptr)).get(), "a", nullptr),
                   "Unrecoverable memory allocation failure\n");
   }
}

/* Interference: a few threads start together, over and over, on few buckets. */
constexpr size_t THREADS = 4;

void Race(const std::function<void(size_t thread)> &run)
{
   std::barrier start(std::ptrdiff_t{THREADS});
   std::vector<std::jthread> threads;
   for (size_t thread = 0; thread < THREADS; thread++) {
      threads.emplace_back([&, thread] {
         start.arrive_and_wait();
         run(thread);
      });
   }
}

TEST(HashTableAtomic, OneTableIsMadeAndOneInsertOfEachKeyWins)
{
   const std::vector<std::string> keys = SampleKeys(100);
   for (int round = 0; round < 100; round++) {
      std::atomic<HashTable *> variable = nullptr;
      std::atomic<HashTable *> large = nullptr; /* takes long enough to make for others to come in */
      std::atomic<size_t> inserted = 0;
      Race([&](size_t thread) {
         const HashTable *got = HashTable_AllocOnce(&large, 1U << 16, 0, nullptr);
         EXPECT_EQ(got, large.load());
         constexpr uint32_t flags = HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY;
         HashTable *table = HashTable_AllocOnce(&variable, 2, flags, nullptr);
         EXPECT_EQ(table, variable.load());
         for (const std::string &key : keys) {
            void *mine = Number(thread + 1);
            void *found = nullptr;
            const bool won = HashTable_Insert(table, key.c_str(), mine);
            inserted += won ? 1 : 0;
            EXPECT_TRUE(HashTable_Lookup(table, key.c_str(), &found));
            EXPECT_EQ(won, found == mine);
            EXPECT_EQ(HashTable_LookupOrInsert(table, key.c_str(), mine), found);
         }
      });
      EXPECT_EQ(inserted, keys.size());
      HashTable_Free(variable);
      HashTable_Free(large);
   }
}

/* The count may lag behind: then the arrays stop short, and removing everything does not take it below 0. Repeated
   until it does, or for long enough. */
TEST(HashTableAtomic, CountIsNeverTooHigh)
{
   static constexpr uintptr_t each = 10000;
   bool lags = false;
   for (int round = 0; round < 40 && !lags; round++) {
      const OwnedTable table(HashTable_Alloc(1U << 16, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr));
      Race([&](size_t thread) {
         for (uintptr_t i = 0; i < each; i++) {
            HashTable_Insert(table.get(), Number(i * THREADS + thread), nullptr);
         }
      });
      const size_t counted = ValuesOf(table).size();
      ASSERT_LE(counted, THREADS * each);
      lags = counted < THREADS * each;
      for (uintptr_t i = 0; i < THREADS * each; i++) {
         ASSERT_TRUE(HashTable_Delete(table.get(), Number(i)));
      }
      ASSERT_EQ(HashTable_GetNumElements(table.get()), 0U);
   }
}

/* Every replaced value is a block of its own: one discarded twice or never is seen by the sanitizers and by the sum.
   The sums are relaxed, or they would order what the table has to order. */
TEST(HashTableAtomic, ReplacementsLoseNothing)
{
   static std::atomic<size_t> sFreed;
   static constexpr size_t each = 2000;
   OwnedTable table(HashTable_Alloc(2, HASH_INT_KEY | HASH_FLAG_ATOMIC, [](void *value) {
      sFreed.fetch_add(1, std::memory_order_relaxed);
      free(value);
   }));
   const OwnedTable counter(HashTable_Alloc(2, HASH_STRING_KEY | HASH_FLAG_ATOMIC, nullptr));
   HashTable_Insert(counter.get(), "counter", Number(0));
   std::atomic<size_t> replaced = 0;
   Race([&](size_t) {
      for (size_t i = 0; i < each; i++) {
         const bool old = HashTable_ReplaceOrInsert(table.get(), Number(i % 5), strdup("v"));
         replaced.fetch_add(old ? 1 : 0, std::memory_order_relaxed);
      }
      for (size_t done = 0; done < each;) {
         void *seen = nullptr;
         HashTable_Lookup(counter.get(), "counter", &seen);
         void *next = Number(std::bit_cast<uintptr_t>(seen) + 1);
         done += HashTable_ReplaceIfEqual(counter.get(), "counter", seen, next) ? 1 : 0;
      }
   });
   EXPECT_EQ(ValuesOf(counter), Values{Number(THREADS * each)});
   EXPECT_EQ(replaced, THREADS * each - 5);
   EXPECT_EQ(sFreed, replaced);
   table.reset();
   EXPECT_EQ(sFreed, THREADS * each);
}

} // namespace
