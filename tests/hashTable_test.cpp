#include "lib/misc/hashTable.h"

#include "tests/support/allocationFaults.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <barrier>
#include <functional>
#include <map>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Freeing {
   void operator()(HashTable *table) const
   {
      HashTable_Free(table);
   }
};

using OwnedTable = std::unique_ptr<HashTable, Freeing>;

OwnedTable Make(uint32_t bucketCount, uint32_t flags, HashTableFreeValue freeValue = nullptr)
{
   return OwnedTable(HashTable_Alloc(bucketCount, flags, freeValue));
}

void *Number(uintptr_t number)
{
   return std::bit_cast<void *>(number);
}

/* The values that a table has discarded, in order. */
std::vector<uintptr_t> sDiscarded;

void Discard(void *value)
{
   sDiscarded.push_back(std::bit_cast<uintptr_t>(value));
}

std::vector<uintptr_t> Discarded()
{
   return std::exchange(sDiscarded, {});
}

using Numbers = std::vector<uintptr_t>;

Numbers Values(const HashTable *table)
{
   void **values = nullptr;
   size_t size = 0;
   HashTable_ValueArray(table, &values, &size);
   Numbers numbers;
   for (size_t i = 0; i < size; i++) {
      numbers.push_back(std::bit_cast<uintptr_t>(values[i]));
   }
   free(values);
   return numbers;
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
         h ^= static_cast<uint32_t>(keyType == HASH_ISTRING_KEY ? tolower(*c) : *c);
         h = (h << 5) | (h >> 27);
      }
   }
   const uint32_t m = (1U << bits) - 1;
   while (h > m) {
      h = (h >> bits) ^ (h & m);
   }
   return h;
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

class HashTableOrder : public testing::TestWithParam<uint32_t> {};

TEST_P(HashTableOrder, IsByBucketAndLastInsertedFirst)
{
   const uint32_t keyType = GetParam();
   const std::vector<std::string> names = SampleKeys(300);
   for (const uint32_t bits : {1U, 2U, 5U, 7U, 8U, 14U, 16U, 20U}) {
      const OwnedTable table = Make(1U << bits, keyType);
      std::map<uint32_t, Numbers> buckets;
      for (uintptr_t i = 0; i < names.size(); i++) {
         const void *key = keyType == HASH_INT_KEY ? Number(i * 0x9E3779B97F4A7C15)
                                                   : static_cast<const void *>(names[i].c_str());
         ASSERT_TRUE(HashTable_Insert(table.get(), key, Number(i)));
         Numbers &bucket = buckets[ExpectedBucket(keyType, key, bits)];
         bucket.insert(bucket.begin(), i);
      }
      Numbers expected;
      for (const auto &[index, bucket] : buckets) {
         expected.insert(expected.end(), bucket.begin(), bucket.end());
      }
      EXPECT_EQ(Values(table.get()), expected) << bits;
   }
}

INSTANTIATE_TEST_SUITE_P(KeyTypes, HashTableOrder,
                         testing::Values(HASH_STRING_KEY, HASH_ISTRING_KEY, HASH_INT_KEY));

/* What holds for a table of one thread, in both modes. */
class HashTableTest : public testing::TestWithParam<uint32_t> {
 protected:
   HashTableTest()
   {
      sDiscarded.clear();
   }

   OwnedTable table_ = Make(4, GetParam() | HASH_STRING_KEY, Discard);
};

INSTANTIATE_TEST_SUITE_P(Modes, HashTableTest, testing::Values(0, HASH_FLAG_ATOMIC));

TEST_P(HashTableTest, InsertLeavesAPresentKeyAlone)
{
   void *value = Number(7);
   EXPECT_FALSE(HashTable_Lookup(table_.get(), "key", &value));
   EXPECT_EQ(value, Number(7));
   EXPECT_TRUE(HashTable_Insert(table_.get(), "key", Number(1)));
   EXPECT_FALSE(HashTable_Insert(table_.get(), "key", Number(2)));
   EXPECT_TRUE(HashTable_Lookup(table_.get(), "key", &value));
   EXPECT_EQ(value, Number(1));
   EXPECT_TRUE(HashTable_Lookup(table_.get(), "key", nullptr));
   EXPECT_FALSE(HashTable_Lookup(table_.get(), "KEY", nullptr));
   EXPECT_EQ(HashTable_LookupOrInsert(table_.get(), "key", Number(3)), Number(1));
   EXPECT_EQ(HashTable_LookupOrInsert(table_.get(), "other", Number(4)), Number(4));
   EXPECT_EQ(HashTable_GetNumElements(table_.get()), 2U);
   EXPECT_EQ(Discarded(), Numbers{});
}

TEST_P(HashTableTest, ReplaceDiscardsTheOldValue)
{
   EXPECT_FALSE(HashTable_ReplaceOrInsert(table_.get(), "key", Number(1)));
   EXPECT_EQ(Discarded(), Numbers{});
   EXPECT_TRUE(HashTable_ReplaceOrInsert(table_.get(), "key", Number(2)));
   EXPECT_EQ(Discarded(), Numbers{1});
   EXPECT_FALSE(HashTable_ReplaceIfEqual(table_.get(), "key", Number(1), Number(3)));
   EXPECT_FALSE(HashTable_ReplaceIfEqual(table_.get(), "absent", nullptr, Number(3)));
   EXPECT_EQ(Discarded(), Numbers{});
   EXPECT_TRUE(HashTable_ReplaceIfEqual(table_.get(), "key", Number(2), Number(3)));
   EXPECT_EQ(Discarded(), Numbers{2});
   EXPECT_EQ(Values(table_.get()), Numbers{3});
}

TEST_P(HashTableTest, RemovalHandsOutOrDiscards)
{
   static constexpr const char *keys[] = {"a", "b", "c", "d", "e", "f", "g", "h", "i"};
   for (uintptr_t i = 0; i < std::size(keys); i++) {
      HashTable_Insert(table_.get(), keys[i], Number(i));
   }
   void *value = Number(77);
   EXPECT_TRUE(HashTable_LookupAndDelete(table_.get(), "e", &value));
   EXPECT_EQ(value, Number(4));
   EXPECT_FALSE(HashTable_LookupAndDelete(table_.get(), "e", &value));
   EXPECT_FALSE(HashTable_Delete(table_.get(), "e"));
   EXPECT_EQ(value, Number(4));
   EXPECT_EQ(Discarded(), Numbers{});
   EXPECT_TRUE(HashTable_Delete(table_.get(), "a"));
   EXPECT_TRUE(HashTable_LookupAndDelete(table_.get(), "i", nullptr));
   EXPECT_EQ(Discarded(), (Numbers{0, 8}));
   EXPECT_EQ(HashTable_GetNumElements(table_.get()), 6U);

   const Numbers rest = Values(table_.get());
   EXPECT_EQ(rest.size(), 6U);
   HashTable_Clear(table_.get());
   EXPECT_EQ(Discarded(), rest);
   EXPECT_EQ(HashTable_GetNumElements(table_.get()), 0U);
   EXPECT_FALSE(HashTable_Lookup(table_.get(), "b", nullptr));
   EXPECT_TRUE(HashTable_Insert(table_.get(), "b", Number(9)));
   HashTable_FreeUnsafe(table_.release());
   EXPECT_EQ(Discarded(), Numbers{9});
}

TEST_P(HashTableTest, ForEachStopsAtTheFirstResult)
{
   const auto record = [](const char *key, void *value, void *clientData) {
      *static_cast<std::string *>(clientData) += key;
      return value == Number(5) ? 42 : 0;
   };
   std::string seen;
   EXPECT_EQ(HashTable_ForEach(table_.get(), record, &seen), 0);
   HashTable_Insert(table_.get(), "x", Number(5));
   HashTable_Insert(table_.get(), "y", Number(6));
   EXPECT_EQ(HashTable_ForEach(table_.get(), record, &seen), 42);
   HashTable_ReplaceOrInsert(table_.get(), "x", Number(6));
   EXPECT_EQ(HashTable_ForEach(table_.get(), record, &seen), 0);
   EXPECT_EQ(seen, "xxy");
}

TEST_P(HashTableTest, LookupsAllocateNothing)
{
   HashTable_Insert(table_.get(), "key", Number(1));
   const FailingAllocations count(0);
   HashTable_Lookup(table_.get(), "key", nullptr);
   HashTable_Lookup(table_.get(), "absent", nullptr);
   HashTable_Insert(table_.get(), "key", Number(2));
   EXPECT_EQ(FailingAllocations::Requests(), 0);
}

/* The old value must still be readable while it is discarded: it is freed before the new one is stored. */
TEST(HashTable, PlainReplacementFreesFirst)
{
   static HashTable *sTable;
   static void *sSeen;
   const OwnedTable table =
       Make(2, HASH_INT_KEY, [](void *) { HashTable_Lookup(sTable, Number(1), &sSeen); });
   sTable = table.get();
   HashTable_Insert(sTable, Number(1), Number(10));
   HashTable_ReplaceOrInsert(sTable, Number(1), Number(20));
   EXPECT_EQ(sSeen, Number(10));
   HashTable_ReplaceIfEqual(sTable, Number(1), Number(20), Number(30));
   EXPECT_EQ(sSeen, Number(20));
}

TEST(HashTable, KeyArrayHoldsTheStoredKeys)
{
   const void *placeholder = nullptr;
   const void **keys = &placeholder;
   size_t size = 7;
   const OwnedTable table = Make(8, HASH_STRING_KEY);
   HashTable_KeyArray(table.get(), &keys, &size);
   EXPECT_EQ(keys, nullptr);
   EXPECT_EQ(size, 0U);
   static constexpr char key[] = "key";
   HashTable_Insert(table.get(), key, nullptr);
   HashTable_KeyArray(table.get(), &keys, &size);
   ASSERT_EQ(size, 1U);
   EXPECT_EQ(keys[0], key);
   free(keys);
}

TEST(HashTable, CopiedKeysOutliveTheCallersString)
{
   const OwnedTable table = Make(8, HASH_ISTRING_KEY | HASH_FLAG_COPYKEY | HASH_FLAG_ATOMIC);
   char key[] = "UTF-8";
   HashTable_Insert(table.get(), key, Number(1));
   key[0] = 'X';
   EXPECT_TRUE(HashTable_Lookup(table.get(), "utf-8", nullptr));
   EXPECT_FALSE(HashTable_Insert(table.get(), "Utf-8", nullptr));
   EXPECT_FALSE(HashTable_Lookup(table.get(), key, nullptr));
   HashTable_ForEach(
       table.get(),
       [](const char *stored, void *, void *) {
          EXPECT_STREQ(stored, "UTF-8");
          return 0;
       },
       nullptr);
   EXPECT_TRUE(HashTable_Delete(table.get(), "utf-8"));
   HashTable_Insert(table.get(), "left to Free", nullptr);
}

TEST(HashTable, IntegerKeysAreNeverRead)
{
   const OwnedTable table = Make(8, HASH_INT_KEY | HASH_FLAG_COPYKEY);
   EXPECT_TRUE(HashTable_Insert(table.get(), nullptr, Number(1)));
   EXPECT_TRUE(HashTable_Insert(table.get(), Number(UINTPTR_MAX), Number(2)));
   EXPECT_FALSE(HashTable_Insert(table.get(), Number(UINTPTR_MAX), Number(3)));
   EXPECT_TRUE(HashTable_Delete(table.get(), nullptr));
   EXPECT_EQ(Values(table.get()), Numbers{2});
}

TEST(HashTable, BucketCountsAndKeyTypesThatAreRefused)
{
   EXPECT_PANIC(HashTable_Free(HashTable_Alloc(96, HASH_STRING_KEY, nullptr)),
                "HashTable_Alloc only takes powers of 2 \n");
   HashTable_Free(HashTable_Alloc(0, HASH_STRING_KEY, nullptr));
   HashTable_Free(nullptr);
   const OwnedTable single = Make(1, HASH_STRING_KEY);
   EXPECT_TRUE(HashTable_Insert(single.get(), "a", nullptr));
   EXPECT_TRUE(HashTable_Insert(single.get(), "b", nullptr));
   EXPECT_TRUE(HashTable_Lookup(single.get(), "a", nullptr));
   for (uint32_t keyType = 3; keyType < 8; keyType++) {
      const OwnedTable table = Make(8, keyType);
      EXPECT_PANIC(HashTable_Lookup(table.get(), "a", nullptr), "NOT_REACHED lib/misc/hashTable:[0-9]+\n");
   }
}

TEST(HashTable, ExhaustionEndsTheProcess)
{
   for (const int allocation : {1, 2, 3}) {
      EXPECT_PANIC(
          {
             const FailingAllocations faults(allocation);
             const OwnedTable table = Make(8, HASH_FLAG_COPYKEY);
             HashTable_Insert(table.get(), "key", nullptr);
          },
          "Unrecoverable memory allocation failure\n");
   }
}

/* Interference: a few threads start together, over and over, on few buckets. */
constexpr size_t THREADS = 4;

void Race(const std::function<void(size_t thread)> &run)
{
   std::barrier start(std::ptrdiff_t{THREADS});
   std::vector<std::thread> threads;
   for (size_t thread = 0; thread < THREADS; thread++) {
      threads.emplace_back([&, thread] {
         start.arrive_and_wait();
         run(thread);
      });
   }
   for (std::thread &thread : threads) {
      thread.join();
   }
}

TEST(HashTableAtomic, AllocOnceMakesOneTable)
{
   for (int round = 0; round < 200; round++) {
      std::atomic<HashTable *> variable = nullptr;
      std::array<HashTable *, THREADS> got = {};
      Race(
          [&](size_t thread) { got[thread] = HashTable_AllocOnce(&variable, 8, HASH_FLAG_ATOMIC, nullptr); });
      EXPECT_EQ(std::count(got.begin(), got.end(), variable.load()), std::ssize(got));
      HashTable_Free(variable);
   }
}

TEST(HashTableAtomic, OneInsertOfEachKeyWins)
{
   const std::vector<std::string> keys = SampleKeys(200);
   for (int round = 0; round < 20; round++) {
      const OwnedTable table = Make(2, HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY);
      std::array<std::atomic<void *>, 200> winners = {};
      std::atomic<size_t> inserted = 0;
      Race([&](size_t thread) {
         for (size_t i = 0; i < keys.size(); i++) {
            void *mine = Number(thread + 1);
            if (HashTable_Insert(table.get(), keys[i].c_str(), mine)) {
               inserted++;
               winners[i] = mine;
            }
            void *found = nullptr;
            EXPECT_TRUE(HashTable_Lookup(table.get(), keys[i].c_str(), &found));
            EXPECT_EQ(HashTable_LookupOrInsert(table.get(), keys[i].c_str(), mine), found);
         }
      });
      EXPECT_EQ(inserted, keys.size());
      for (size_t i = 0; i < keys.size(); i++) {
         void *found = nullptr;
         EXPECT_TRUE(HashTable_Lookup(table.get(), keys[i].c_str(), &found));
         EXPECT_EQ(found, winners[i]);
      }

      /* The count may lag behind; then the arrays stop short, and removing everything must not take it below 0. */
      EXPECT_LE(HashTable_GetNumElements(table.get()), keys.size());
      EXPECT_EQ(Values(table.get()).size(), HashTable_GetNumElements(table.get()));
      for (const std::string &key : keys) {
         EXPECT_TRUE(HashTable_Delete(table.get(), key.c_str()));
      }
      EXPECT_EQ(HashTable_GetNumElements(table.get()), 0U);
   }
}

/* Every value is a block of its own: one discarded twice or never is seen by the sanitizers and by the sum. */
TEST(HashTableAtomic, EveryReplacedValueIsDiscardedOnce)
{
   static std::atomic<size_t> sFreed;
   static constexpr size_t replacements = 2000;
   sFreed = 0;
   OwnedTable table = Make(2, HASH_INT_KEY | HASH_FLAG_ATOMIC, [](void *value) {
      sFreed++;
      free(value);
   });
   std::atomic<size_t> inserted = 0;
   Race([&](size_t) {
      for (size_t i = 0; i < replacements; i++) {
         const bool replaced = HashTable_ReplaceOrInsert(table.get(), Number(i % 5), strdup("v"));
         inserted += replaced ? 0 : 1;
      }
   });
   EXPECT_EQ(inserted, 5U);
   EXPECT_EQ(sFreed, THREADS * replacements - 5);
   table.reset();
   EXPECT_EQ(sFreed, THREADS * replacements);
}

TEST(HashTableAtomic, ReplaceIfEqualLosesNoUpdate)
{
   static constexpr uintptr_t increments = 2000;
   const OwnedTable table = Make(2, HASH_STRING_KEY | HASH_FLAG_ATOMIC);
   HashTable_Insert(table.get(), "counter", Number(0));
   Race([&](size_t) {
      for (uintptr_t done = 0; done < increments;) {
         void *seen = nullptr;
         HashTable_Lookup(table.get(), "counter", &seen);
         void *next = Number(std::bit_cast<uintptr_t>(seen) + 1);
         done += HashTable_ReplaceIfEqual(table.get(), "counter", seen, next) ? 1 : 0;
      }
   });
   EXPECT_EQ(Values(table.get()), Numbers{THREADS * increments});
}

} // namespace
