#include "lib/misc/hashTable.h"

#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *MODULE = "lib/misc/hashTable";

constexpr uint32_t KEY_TYPE_MASK = 7;
constexpr uint32_t HASH_BITS = 32;
constexpr uint64_t INT_KEY_MULTIPLIER = 48271;

/* A key with what is computed from it once. The length of an integer key is 0, that of a string of 4 GiB or more
   LONG_STRING. */
struct HashTableKey {
   const void *key;
   uint32_t length;
   uint32_t hash;
};

constexpr uint32_t LONG_STRING = UINT32_MAX;

/* Length and hash are kept so that a walk along a chain hardly ever reads the string of another entry: worth the 8
   bytes, since such a string is seldom in the cache. */
struct HashTableEntry {
   HashTableEntry *next;
   HashTableKey key;
   void *value;

   /* A copied string follows in the same block. */
};

} // namespace

/* Three fields change while other threads read an atomic table: a bucket's head, an entry's value, the count. The
   routines that may run then reach them through std::atomic_ref only; on x86-64 that costs a table of one
   thread nothing. */
struct HashTable {
   uint32_t bucketCount;
   uint32_t bucketBits;
   uint32_t keyType;
   bool atomic;
   bool copyKeys;
   HashTableFreeValue freeValue;
   HashTableEntry **buckets;
   uint64_t count;
};

namespace {

HashTableEntry *HashTableHead(const HashTable *table, uint32_t bucket)
{
   return std::atomic_ref(table->buckets[bucket]).load(std::memory_order_acquire);
}

void *HashTableValue(HashTableEntry *entry)
{
   return std::atomic_ref(entry->value).load(std::memory_order_acquire);
}

constexpr uint64_t BYTE_ONES = 0x0101010101010101;
constexpr size_t WORD_SIZE = sizeof(uint64_t);

/* Strings are read 8 bytes at a time, the first byte in the lowest position. */
static_assert(std::endian::native == std::endian::little);

template <typename Word> uint64_t HashTableLoad(const char *bytes)
{
   Word word;
   memcpy(&word, bytes, sizeof word);
   return word;
}

/* All of a string of 1 to 7 bytes, with zero bytes behind it. The loads overlap where the length is not a power
   of two. */
uint64_t HashTableLoadShort(const char *bytes, size_t length)
{
   if (length >= sizeof(uint32_t)) {
      const size_t last = length - sizeof(uint32_t);
      return HashTableLoad<uint32_t>(bytes) | HashTableLoad<uint32_t>(bytes + last) << (8 * last);
   }
   const size_t middle = length / 2;
   const size_t last = length - 1;
   return HashTableLoad<uint8_t>(bytes) | HashTableLoad<uint8_t>(bytes + middle) << (8 * middle) |
          HashTableLoad<uint8_t>(bytes + last) << (8 * last);
}

/* The hash of 8 bytes. A rotated exclusive or is the exclusive or of its rotated parts, so that the rounds of the
   definition, hash = rotl(hash ^ byte, 5), come to rotating each byte by 5 for itself and for each byte
   behind it: here for pairs of bytes, pairs of pairs, and the halves of the word at the same time. */
uint32_t HashTableHashWord(uint64_t word)
{
   constexpr uint64_t evenBytes = 0x00FF00FF00FF00FF;
   constexpr uint64_t evenPairs = 0x0000FFFF0000FFFF;

   word = ((word & evenBytes) << 5) ^ ((word >> 8) & evenBytes);
   word = ((word & evenPairs) << 10) ^ ((word >> 16) & evenPairs);
   return std::rotl(static_cast<uint32_t>(word), 25) ^ std::rotl(static_cast<uint32_t>(word >> 32), 5);
}

struct HashTableExactText {
   static uint64_t Fold(uint64_t word)
   {
      return word;
   }

   static bool Equal(const char *a, const char *b, size_t length)
   {
      return memcmp(a, b, length) == 0;
   }
};

struct HashTableNoCaseText {
   /* Each byte from 'A' to 'Z' in lower case. */
   static uint64_t Fold(uint64_t word)
   {
      const uint64_t low = word & 0x7F * BYTE_ONES;
      const uint64_t fromA = low + (0x80 - 'A') * BYTE_ONES;
      const uint64_t beyondZ = low + (0x7F - 'Z') * BYTE_ONES;
      return word | (fromA & ~beyondZ & ~word & 0x80 * BYTE_ONES) >> 2;
   }

   static bool Equal(const char *a, const char *b, size_t length)
   {
      if (length < WORD_SIZE) {
         return length == 0 || Fold(HashTableLoadShort(a, length)) == Fold(HashTableLoadShort(b, length));
      }
      const size_t last = length - WORD_SIZE;
      for (size_t i = 0; i < last; i += WORD_SIZE) {
         if (Fold(HashTableLoad<uint64_t>(a + i)) != Fold(HashTableLoad<uint64_t>(b + i))) {
            return false;
         }
      }
      return Fold(HashTableLoad<uint64_t>(a + last)) == Fold(HashTableLoad<uint64_t>(b + last));
   }
};

/* Inlined, because a lookup of a short key is mostly this. */
template <typename Text> [[gnu::always_inline]] inline uint32_t HashTableHash(const char *key, size_t length)
{
   if (length == 0) {
      return 0;
   }

   /* The first word takes 1 to 8 bytes, so that whole words are left. It is filled up with zero bytes in front, which
      leave the hash at 0. */
   const size_t missing = WORD_SIZE - 1 - (length - 1) % WORD_SIZE;
   const uint64_t word = length < WORD_SIZE ? HashTableLoadShort(key, length) : HashTableLoad<uint64_t>(key);
   uint32_t hash = HashTableHashWord(Text::Fold(word << (8 * missing)));
   const char *end = key + length;
   for (const char *at = key + (WORD_SIZE - missing); at != end; at += WORD_SIZE) {
      hash = std::rotl(hash, 8) ^ HashTableHashWord(Text::Fold(HashTableLoad<uint64_t>(at)));
   }
   return hash;
}

/* The kinds of key: how one is measured and hashed, and whether two with the same hash and length are equal. */
template <typename Text> struct HashTableStringKey {
   static HashTableKey Make(const void *key)
   {
      const char *string = static_cast<const char *>(key);
      const size_t length = strlen(string);
      return {.key = key,
              .length = static_cast<uint32_t>(std::min<size_t>(length, LONG_STRING)),
              .hash = HashTableHash<Text>(string, length)};
   }

   static bool Equal(const HashTableKey &a, const HashTableKey &b)
   {
      const char *stringA = static_cast<const char *>(a.key);
      const char *stringB = static_cast<const char *>(b.key);
      size_t length = a.length;
      if (length == LONG_STRING) {
         length = strlen(stringA);
         if (length != strlen(stringB)) {
            return false;
         }
      }
      return Text::Equal(stringA, stringB, length);
   }
};

struct HashTableIntKey {
   static HashTableKey Make(const void *key)
   {
      const auto number = std::bit_cast<uint64_t>(key);
      const uint64_t product = ((number >> HASH_BITS) ^ number) * INT_KEY_MULTIPLIER;
      return {.key = key, .length = 0, .hash = static_cast<uint32_t>(product)};
   }

   static bool Equal(const HashTableKey &a, const HashTableKey &b)
   {
      return a.key == b.key;
   }
};

/* Calls work with the table's kind of key: each has code of its own, with no further choices in it. */
template <typename Work> auto HashTableWithKeyType(const HashTable *table, Work work)
{
   switch (table->keyType) {
   case HASH_STRING_KEY:
      return work(HashTableStringKey<HashTableExactText>{});
   case HASH_ISTRING_KEY:
      return work(HashTableStringKey<HashTableNoCaseText>{});
   case HASH_INT_KEY:
      return work(HashTableIntKey{});
   default:
      Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
   }
}

/* The exclusive or of the hash's pieces of bucketBits bits each, which is what folding the top onto the low piece
   until nothing is left of it comes to. Each round doubles the number of pieces gathered in the lowest, so
   that the number of rounds does not depend on the key. A single bucket has 0 bits: no round, not one without
   end. */
uint32_t HashTableBucket(const HashTable *table, const HashTableKey &key)
{
   uint32_t folded = key.hash;
   for (uint32_t shift = table->bucketBits; shift - 1 < HASH_BITS - 1; shift *= 2) {
      folded ^= folded >> shift;
   }
   return folded & (table->bucketCount - 1);
}

template <typename Type> HashTableEntry *HashTableFindFrom(HashTableEntry *head, const HashTableKey &key)
{
   for (HashTableEntry *entry = head; entry != nullptr; entry = entry->next) {
      if (entry->key.hash == key.hash && entry->key.length == key.length && Type::Equal(entry->key, key)) {
         return entry;
      }
   }
   return nullptr;
}

template <typename Type>
[[gnu::noinline]] HashTableEntry *HashTableFindAs(const HashTable *table, const void *key)
{
   const HashTableKey wanted = Type::Make(key);
   return HashTableFindFrom<Type>(HashTableHead(table, HashTableBucket(table, wanted)), wanted);
}

HashTableEntry *HashTableFind(const HashTable *table, const void *key)
{
   return HashTableWithKeyType(table, [=]<typename Type>(Type) { return HashTableFindAs<Type>(table, key); });
}

HashTableEntry *HashTableNewEntry(const HashTable *table, const HashTableKey &key, void *value)
{
   const size_t keySize = table->copyKeys ? strlen(static_cast<const char *>(key.key)) + 1 : 0;
   auto *entry = static_cast<HashTableEntry *>(Util_SafeMalloc(sizeof(HashTableEntry) + keySize));
   *entry = {.next = nullptr, .key = key, .value = value};
   if (table->copyKeys) {
      entry->key.key = memcpy(entry + 1, key.key, keySize);
   }
   return entry;
}

/* A load and a store, not one atomic step: of two inserts at the same time one may go uncounted. Kept as designed,
   so that inserts do not contend for the count. */
void HashTableCountUp(HashTable *table)
{
   const std::atomic_ref count(table->count);
   count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool HashTableLink(HashTable *table, uint32_t bucket, HashTableEntry *head, HashTableEntry *entry)
{
   const std::atomic_ref slot(table->buckets[bucket]);
   entry->next = head;
   if (!table->atomic) {
      slot.store(entry, std::memory_order_relaxed);
      return true;
   }
   return slot.compare_exchange_strong(head, entry, std::memory_order_release, std::memory_order_relaxed);
}

template <typename Type>
[[gnu::noinline]] HashTableEntry *HashTableFindOrLinkAs(HashTable *table, const void *key, void *value)
{
   const HashTableKey wanted = Type::Make(key);
   const uint32_t bucket = HashTableBucket(table, wanted);
   HashTableEntry *prepared = nullptr;

   while (true) {
      HashTableEntry *head = HashTableHead(table, bucket);
      if (HashTableEntry *found = HashTableFindFrom<Type>(head, wanted); found != nullptr) {
         free(prepared);
         return found;
      }
      if (prepared == nullptr) {
         prepared = HashTableNewEntry(table, wanted, value);
      }
      if (HashTableLink(table, bucket, head, prepared)) {
         HashTableCountUp(table);
         return nullptr;
      }
   }
}

/* The entry that holds the key already, or null if a new entry was linked. */
HashTableEntry *HashTableFindOrLink(HashTable *table, const void *key, void *value)
{
   return HashTableWithKeyType(
       table, [=]<typename Type>(Type) { return HashTableFindOrLinkAs<Type>(table, key, value); });
}

void HashTableDiscardValue(const HashTable *table, void *value)
{
   if (table->freeValue != nullptr) {
      table->freeValue(value);
   }
}

/* Calls visit(entry) in the order that the arrays and the walk promise, until it gives a result that is not 0. */
template <typename Visit> int HashTableVisit(const HashTable *table, Visit visit)
{
   for (uint32_t bucket = 0; bucket < table->bucketCount; bucket++) {
      for (HashTableEntry *entry = HashTableHead(table, bucket); entry != nullptr; entry = entry->next) {
         if (const int result = visit(entry); result != 0) {
            return result;
         }
      }
   }
   return 0;
}

template <typename Element, typename Get>
void HashTableArray(const HashTable *table, Element **array, size_t *size, Get get)
{
   const size_t count = HashTable_GetNumElements(table);
   *array = nullptr;
   *size = count;
   if (count == 0) {
      return;
   }
   *array = static_cast<Element *>(Util_SafeCalloc(count, sizeof(Element)));

   /* The chains of an atomic table can hold more entries than were counted. */
   size_t filled = 0;
   HashTableVisit(table, [&](HashTableEntry *entry) {
      (*array)[filled++] = get(entry);
      return filled == count ? 1 : 0;
   });
}

} // namespace

HashTable *HashTable_Alloc(uint32_t bucketCount, uint32_t flags, HashTableFreeValue freeValue)
{
   if ((bucketCount & (bucketCount - 1)) != 0) {
      Panic("%s only takes powers of 2 \n", "HashTable_Alloc");
   }
   const uint32_t keyType = flags & KEY_TYPE_MASK;
   auto *table = static_cast<HashTable *>(Util_SafeMalloc(sizeof(HashTable)));
   *table = {
       .bucketCount = bucketCount,
       .bucketBits = static_cast<uint32_t>(std::bit_width(bucketCount)) - 1,
       .keyType = keyType,
       .atomic = (flags & HASH_FLAG_ATOMIC) != 0,
       .copyKeys = (flags & HASH_FLAG_COPYKEY) != 0 && keyType < HASH_INT_KEY,
       .freeValue = freeValue,
       .buckets = static_cast<HashTableEntry **>(Util_SafeCalloc(bucketCount, sizeof(void *))),
       .count = 0,
   };
   return table;
}

HashTable *HashTable_AllocOnce(std::atomic<HashTable *> *variable, uint32_t bucketCount, uint32_t flags,
                               HashTableFreeValue freeValue)
{
   HashTable *table = variable->load(std::memory_order_acquire);
   if (table != nullptr) {
      return table;
   }
   HashTable *made = HashTable_Alloc(bucketCount, flags, freeValue);
   if (variable->compare_exchange_strong(table, made, std::memory_order_acq_rel, std::memory_order_acquire)) {
      return made;
   }
   HashTable_Free(made);
   return table;
}

void HashTable_Free(HashTable *table)
{
   if (table == nullptr) {
      return;
   }
   HashTable_Clear(table);
   free(table->buckets);
   free(table);
}

void HashTable_FreeUnsafe(HashTable *table)
{
   HashTable_Free(table);
}

void HashTable_Clear(HashTable *table)
{
   for (uint32_t bucket = 0; bucket < table->bucketCount; bucket++) {
      while (HashTableEntry *entry = table->buckets[bucket]) {
         table->buckets[bucket] = entry->next;
         HashTableDiscardValue(table, entry->value);
         free(entry);
      }
   }
   table->count = 0;
}

bool HashTable_Insert(HashTable *table, const void *key, void *value)
{
   return HashTableFindOrLink(table, key, value) == nullptr;
}

void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value)
{
   HashTableEntry *found = HashTableFindOrLink(table, key, value);
   return found != nullptr ? HashTableValue(found) : value;
}

bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value)
{
   HashTableEntry *found = HashTableFindOrLink(table, key, value);
   if (found == nullptr) {
      return false;
   }
   if (table->atomic) {
      void *old = std::atomic_ref(found->value).exchange(value, std::memory_order_acq_rel);
      HashTableDiscardValue(table, old);
   } else {
      HashTableDiscardValue(table, found->value);
      found->value = value;
   }
   return true;
}

bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *expected, void *value)
{
   HashTableEntry *found = HashTableFind(table, key);
   if (found == nullptr) {
      return false;
   }
   void *old = expected;
   if (table->atomic
           ? !std::atomic_ref(found->value)
                  .compare_exchange_strong(old, value, std::memory_order_acq_rel, std::memory_order_relaxed)
           : found->value != expected) {
      return false;
   }
   HashTableDiscardValue(table, expected);
   if (!table->atomic) {
      found->value = value;
   }
   return true;
}

bool HashTable_Lookup(const HashTable *table, const void *key, void **value)
{
   HashTableEntry *found = HashTableFind(table, key);
   if (found != nullptr && value != nullptr) {
      *value = HashTableValue(found);
   }
   return found != nullptr;
}

bool HashTable_LookupAndDelete(HashTable *table, const void *key, void **value)
{
   HashTableEntry *found = HashTableFind(table, key);
   if (found == nullptr) {
      return false;
   }
   HashTableEntry **link = &table->buckets[HashTableBucket(table, found->key)];
   while (*link != found) {
      link = &(*link)->next;
   }
   *link = found->next;

   /* An atomic table may have counted fewer entries than it holds. */
   if (table->count > 0) {
      table->count--;
   }
   if (value != nullptr) {
      *value = found->value;
   } else {
      HashTableDiscardValue(table, found->value);
   }
   free(found);
   return true;
}

bool HashTable_Delete(HashTable *table, const void *key)
{
   return HashTable_LookupAndDelete(table, key, nullptr);
}

size_t HashTable_GetNumElements(const HashTable *table)
{
   return std::atomic_ref(const_cast<uint64_t &>(table->count)).load(std::memory_order_relaxed);
}

void HashTable_KeyArray(const HashTable *table, const void ***keys, size_t *size)
{
   HashTableArray(table, keys, size, [](const HashTableEntry *entry) { return entry->key.key; });
}

void HashTable_ValueArray(const HashTable *table, void ***values, size_t *size)
{
   HashTableArray(table, values, size, [](const HashTableEntry *entry) { return entry->value; });
}

int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback, void *clientData)
{
   return HashTableVisit(
       table, [&](HashTableEntry *entry) { return callback(entry->key.key, entry->value, clientData); });
}
