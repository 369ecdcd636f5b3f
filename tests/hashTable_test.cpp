#include "lib/misc/hashTable.h"

#include "tests/support/testSupport.h"

#include <algorithm>
#include <barrier>
#include <cstring>
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

using Numbers = std::vector<uintptr_t>;

/* The values that a table has discarded, in order. */
Numbers sDiscarded;

void Discard(void *value)
{
   sDiscarded.push_back(std::bit_cast<uintptr_t>(value));
}

Numbers Discarded()
{
   return std::exchange(sDiscarded, {});
}

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
         const OwnedTable table = Make(1U << bits, keyType);
         std::map<uint32_t, Numbers> buckets;
         for (uintptr_t i = 0; i < names.size(); i++) {
            const void *key = keyType == HASH_INT_KEY ? Number(i * 0x9E3779B97F4A7C15) : names[i].c_str();
            ASSERT_TRUE(HashTable_Insert(table.get(), key, Number(i)));
            Numbers &bucket = buckets[ExpectedBucket(keyType, key, bits)];
            bucket.insert(bucket.begin(), i);
         }
         Numbers expected;
         for (const auto &[index, bucket] : buckets) {
            expected.insert(expected.end(), bucket.begin(), bucket.end());
         }
         EXPECT_EQ(Values(table.get()), expected) << keyType << " " << bits;
      }
   }
}

/* Keys that differ in one byte or in case only, at every length and place, among them bytes next to the letters. */
TEST(HashTable, KeysAreToldApart)
{
   for (const uint32_t keyType : {HASH_STRING_KEY, HASH_ISTRING_KEY}) {
      const OwnedTable table = Make(2, keyType | HASH_FLAG_COPYKEY);
      for (size_t length = 1; length < 26; length++) {
         std::string key(length, 'k');
         HashTable_Insert(table.get(), key.c_str(), nullptr);
         for (char &byte : key) {
            for (const char other : {'@', 'K', '[', '`', '{', '\x01', '\xCB', '\xEB'}) {
               byte = other;
               EXPECT_EQ(HashTable_Lookup(table.get(), key.c_str(), nullptr),
                         other == 'K' && keyType == HASH_ISTRING_KEY);
            }
            byte = 'k';
         }
         EXPECT_TRUE(HashTable_Lookup(table.get(), key.c_str(), nullptr));
      }
   }
}

/* What holds for one thread, in both modes. */
class HashTableTest : public testing::TestWithParam<uint32_t> {
 protected:
   HashTableTest()
   {
      sDiscarded.clear();
   }

   OwnedTable owned_ = Make(4, GetParam() | HASH_STRING_KEY, Discard);
   HashTable *table_ = owned_.get();
};

INSTANTIATE_TEST_SUITE_P(Modes, HashTableTest, testing::Values(0, HASH_FLAG_ATOMIC));

TEST_P(HashTableTest, InsertLeavesAPresentKeyAlone)
{
   void *value = Number(7);
   EXPECT_FALSE(HashTable_Lookup(table_, "key", &value));
   EXPECT_EQ(value, Number(7));
   EXPECT_TRUE(HashTable_Insert(table_, "key", Number(1)));
   EXPECT_FALSE(HashTable_Insert(table_, "key", Number(2)));
   EXPECT_EQ(HashTable_LookupOrInsert(table_, "key", Number(3)), Number(1));
   EXPECT_TRUE(HashTable_Lookup(table_, "key", &value));
   EXPECT_EQ(value, Number(1));
   EXPECT_TRUE(HashTable_Lookup(table_, "key", nullptr));
   EXPECT_EQ(Discarded(), Numbers{});
}

TEST_P(HashTableTest, ReplaceDiscardsTheOldValue)
{
   EXPECT_EQ(HashTable_LookupOrInsert(table_, "key", Number(1)), Number(1));
   EXPECT_FALSE(HashTable_ReplaceOrInsert(table_, "other", Number(9)));
   EXPECT_TRUE(HashTable_ReplaceOrInsert(table_, "key", Number(2)));
   EXPECT_EQ(Discarded(), Numbers{1});
   EXPECT_FALSE(HashTable_ReplaceIfEqual(table_, "key", Number(1), Number(3)));
   EXPECT_FALSE(HashTable_ReplaceIfEqual(table_, "absent", nullptr, Number(3)));
   EXPECT_EQ(Discarded(), Numbers{});
   EXPECT_TRUE(HashTable_ReplaceIfEqual(table_, "key", Number(2), Number(3)));
   EXPECT_EQ(Discarded(), Numbers{2});
   EXPECT_EQ(HashTable_LookupOrInsert(table_, "key", nullptr), Number(3));
}

TEST_P(HashTableTest, RemovalHandsOutOrDiscards)
{
   static constexpr const char *keys[] = {"a", "b", "c", "d", "e", "f", "g", "h", "i"};
   for (uintptr_t i = 0; i < std::size(keys); i++) {
      HashTable_Insert(table_, keys[i], Number(i));
   }
   void *value = Number(77);
   EXPECT_TRUE(HashTable_LookupAndDelete(table_, "e", &value));
   EXPECT_EQ(value, Number(4));
   EXPECT_FALSE(HashTable_LookupAndDelete(table_, "e", &value));
   EXPECT_FALSE(HashTable_Delete(table_, "e"));
   EXPECT_EQ(value, Number(4));
   EXPECT_EQ(Discarded(), Numbers{});
   EXPECT_TRUE(HashTable_Delete(table_, "a"));
   EXPECT_TRUE(HashTable_LookupAndDelete(table_, "i", nullptr));
   EXPECT_EQ(Discarded(), (Numbers{0, 8}));

   const Numbers rest = Values(table_);
   EXPECT_EQ(rest.size(), 6U);
   HashTable_Clear(table_);
   EXPECT_EQ(Discarded(), rest);
   EXPECT_EQ(HashTable_GetNumElements(table_), 0U);
   EXPECT_TRUE(HashTable_Insert(table_, "b", Number(9)));
   HashTable_FreeUnsafe(owned_.release());
   EXPECT_EQ(Discarded(), Numbers{9});
}

TEST_P(HashTableTest, ForEachAndKeyArrayGiveTheStoredKeys)
{
   const auto record = [](const char *key, void *value, void *clientData) {
      *static_cast<std::string *>(clientData) += key;
      return value == Number(5) ? 42 : 0;
   };
   std::string seen;
   const void **keys = reinterpret_cast<const void **>(&seen);
   size_t size = 7;
   HashTable_KeyArray(table_, &keys, &size);
   EXPECT_TRUE(keys == nullptr && size == 0);
   EXPECT_EQ(HashTable_ForEach(table_, record, &seen), 0);
   static constexpr char x[] = "x";
   HashTable_Insert(table_, x, Number(5));
   HashTable_Insert(table_, "y", Number(6));
   EXPECT_EQ(HashTable_ForEach(table_, record, &seen), 42);
   HashTable_ReplaceOrInsert(table_, "x", Number(6));
   EXPECT_EQ(HashTable_ForEach(table_, record, &seen), 0);
   EXPECT_EQ(seen, "xxy");
   HashTable_KeyArray(table_, &keys, &size);
   EXPECT_TRUE(size == 2 && keys[0] == x);
   free(keys);
}

/* The old value is still in the table while it is discarded: it is freed before the new one is stored. */
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

TEST(HashTable, CopiesStringKeysAndNeverReadsIntegers)
{
   const OwnedTable table = Make(8, HASH_ISTRING_KEY | HASH_FLAG_COPYKEY | HASH_FLAG_ATOMIC);
   char key[] = "UTF-8";
   HashTable_Insert(table.get(), key, Number(1));
   key[0] = 'X';
   EXPECT_FALSE(HashTable_Insert(table.get(), "utf-8", nullptr));
   EXPECT_FALSE(HashTable_Lookup(table.get(), key, nullptr));
   const auto compare = [](const char *stored, void *, void *) { return strcmp(stored, "UTF-8"); };
   EXPECT_EQ(HashTable_ForEach(table.get(), compare, nullptr), 0);
   EXPECT_TRUE(HashTable_Delete(table.get(), "utf-8"));
   HashTable_Insert(table.get(), "left to Free", nullptr);

   const OwnedTable numbers = Make(8, HASH_INT_KEY | HASH_FLAG_COPYKEY);
   EXPECT_TRUE(HashTable_Insert(numbers.get(), nullptr, Number(1)));
   EXPECT_TRUE(HashTable_Insert(numbers.get(), Number(UINTPTR_MAX), Number(2)));
   EXPECT_TRUE(HashTable_Delete(numbers.get(), nullptr));
   EXPECT_EQ(Values(numbers.get()), Numbers{2});
}

TEST(HashTable, EndsTheProcessOnMisuse)
{
   EXPECT_PANIC(Make(96, HASH_STRING_KEY), "HashTable_Alloc only takes powers of 2 \n");
   HashTable_Free(HashTable_Alloc(0, HASH_STRING_KEY, nullptr));
   HashTable_Free(nullptr);
   for (uint32_t keyType = 3; keyType < 8; keyType++) {
      const OwnedTable table = Make(8, keyType);
      EXPECT_PANIC(HashTable_Lookup(table.get(), "a", nullptr), "NOT_REACHED lib/misc/hashTable:[0-9]+\n");
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
      std::atomic<size_t> inserted = 0;
      Race([&](size_t thread) {
         for (const std::string &key : keys) {
            void *mine = Number(thread + 1);
            void *found = nullptr;
            const bool won = HashTable_Insert(table.get(), key.c_str(), mine);
            inserted += won ? 1 : 0;
            EXPECT_TRUE(HashTable_Lookup(table.get(), key.c_str(), &found));
            EXPECT_EQ(won, found == mine);
            EXPECT_EQ(HashTable_LookupOrInsert(table.get(), key.c_str(), mine), found);
         }
      });
      EXPECT_EQ(inserted, keys.size());

      /* The count may lag behind; then the arrays stop short, and removing everything must not take it below 0. */
      EXPECT_LE(Values(table.get()).size(), keys.size());
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
   OwnedTable table = Make(2, HASH_INT_KEY | HASH_FLAG_ATOMIC, [](void *value) {
      sFreed++;
      free(value);
   });
   std::atomic<size_t> replaced = 0;
   Race([&](size_t) {
      for (size_t i = 0; i < replacements; i++) {
         replaced += HashTable_ReplaceOrInsert(table.get(), Number(i % 5), strdup("v")) ? 1 : 0;
      }
   });
   EXPECT_EQ(replaced, THREADS * replacements - 5);
   EXPECT_EQ(sFreed, replaced);
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
