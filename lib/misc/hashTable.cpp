#include "lib/misc/hashTable.h"

#include "lib/misc/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char *MODULE = "lib/misc/hashTable";

constexpr uint32_t KEY_TYPE_MASK = 7;
constexpr int HASH_ROTATION = 5;
constexpr uint32_t HASH_BITS = 32;
constexpr uint64_t INT_KEY_MULTIPLIER = 48271;

struct HashEntry {
   HashEntry *next;
   const void *key;
   void *value;

   /* A copied key follows in the same block. */
};

struct HashBucket {
   HashEntry *head;
};

} // namespace

/* Three fields are changed while other threads read an atomic table: a bucket's head, an entry's value, the count.
   All three are only reached through std::atomic_ref, which costs a table of one thread nothing on x86-64. */
struct HashTable {
   uint32_t bucketCount;
   uint32_t bucketBits;
   uint32_t keyType;
   bool atomic;
   bool copyKeys;
   HashTableFreeValue freeValue;
   HashBucket *buckets;
   uint64_t count;
};

namespace {

HashEntry *HashTableHead(const HashTable *table, uint32_t bucket)
{
   return std::atomic_ref(table->buckets[bucket].head).load(std::memory_order_acquire);
}

void *HashTableValue(HashEntry *entry)
{
   return std::atomic_ref(entry->value).load(std::memory_order_acquire);
}

uint32_t HashTableHashString(const char *key)
{
   uint32_t hash = 0;
   for (; *key != '\0'; key++) {
      hash = std::rotl(hash ^ static_cast<unsigned char>(*key), HASH_ROTATION);
   }
   return hash;
}

uint32_t HashTableHashStringNoCase(const char *key)
{
   uint32_t hash = 0;
   for (; *key != '\0'; key++) {
      const int lower = tolower(static_cast<unsigned char>(*key));
      hash = std::rotl(hash ^ static_cast<uint32_t>(lower), HASH_ROTATION);
   }
   return hash;
}

uint32_t HashTableHashInt(const void *key)
{
   const auto number = std::bit_cast<uint64_t>(key);
   return static_cast<uint32_t>(((number >> HASH_BITS) ^ number) * INT_KEY_MULTIPLIER);
}

uint32_t HashTableHash(const HashTable *table, const void *key)
{
   switch (table->keyType) {
   case HASH_STRING_KEY:
      return HashTableHashString(static_cast<const char *>(key));
   case HASH_ISTRING_KEY:
      return HashTableHashStringNoCase(static_cast<const char *>(key));
   case HASH_INT_KEY:
      return HashTableHashInt(key);
   default:
      Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
   }
}

/* The exclusive or of the hash's pieces of bucketBits bits each, which is what repeated folding of the top onto the
   low piece comes to. Each round doubles the number of pieces gathered in the lowest, so that the number of
   rounds does not depend on the key. */
uint32_t HashTableFold(uint32_t hash, uint32_t bucketBits)
{
   if (bucketBits == 0) {
      return 0;
   }
   for (uint32_t shift = bucketBits; shift < HASH_BITS; shift *= 2) {
      hash ^= hash >> shift;
   }
   return hash & ((1U << bucketBits) - 1);
}

uint32_t HashTableBucket(const HashTable *table, const void *key)
{
   return HashTableFold(HashTableHash(table, key), table->bucketBits);
}

bool HashTableMatches(uint32_t keyType, const void *a, const void *b)
{
   switch (keyType) {
   case HASH_STRING_KEY:
      return strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
   case HASH_ISTRING_KEY:
      return strcasecmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
   default:
      return a == b;
   }
}

HashEntry *HashTableFindFrom(const HashTable *table, HashEntry *head, const void *key)
{
   HashEntry *entry = head;
   while (entry != nullptr && !HashTableMatches(table->keyType, entry->key, key)) {
      entry = entry->next;
   }
   return entry;
}

HashEntry *HashTableFind(const HashTable *table, const void *key)
{
   return HashTableFindFrom(table, HashTableHead(table, HashTableBucket(table, key)), key);
}

HashEntry *HashTableNewEntry(const HashTable *table, const void *key, void *value)
{
   const size_t keySize = table->copyKeys ? strlen(static_cast<const char *>(key)) + 1 : 0;
   auto *entry = static_cast<HashEntry *>(Util_SafeMalloc(sizeof(HashEntry) + keySize));
   const void *ownKey = keySize == 0 ? key : memcpy(entry + 1, key, keySize);
   *entry = {.next = nullptr, .key = ownKey, .value = value};
   return entry;
}

/* A load and a store, not one atomic step: of two inserts at the same time one may go uncounted. Kept as designed,
   so that inserts do not contend for the count. */
void HashTableCountUp(HashTable *table)
{
   const std::atomic_ref count(table->count);
   count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool HashTableLink(HashTable *table, uint32_t bucket, HashEntry *head, HashEntry *entry)
{
   const std::atomic_ref slot(table->buckets[bucket].head);
   entry->next = head;
   if (!table->atomic) {
      slot.store(entry, std::memory_order_relaxed);
      return true;
   }
   return slot.compare_exchange_strong(head, entry, std::memory_order_release, std::memory_order_relaxed);
}

/* The entry that holds the key already, or null if a new entry was linked. */
HashEntry *HashTableFindOrLink(HashTable *table, const void *key, void *value)
{
   const uint32_t bucket = HashTableBucket(table, key);
   HashEntry *prepared = nullptr;

   while (true) {
      HashEntry *head = HashTableHead(table, bucket);
      if (HashEntry *found = HashTableFindFrom(table, head, key); found != nullptr) {
         free(prepared);
         return found;
      }
      if (prepared == nullptr) {
         prepared = HashTableNewEntry(table, key, value);
      }
      if (HashTableLink(table, bucket, head, prepared)) {
         HashTableCountUp(table);
         return nullptr;
      }
   }
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
      for (HashEntry *entry = HashTableHead(table, bucket); entry != nullptr; entry = entry->next) {
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
   HashTableVisit(table, [&](HashEntry *entry) {
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
       .buckets = static_cast<HashBucket *>(Util_SafeCalloc(bucketCount, sizeof(HashBucket))),
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
      while (HashEntry *entry = table->buckets[bucket].head) {
         table->buckets[bucket].head = entry->next;
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
   HashEntry *found = HashTableFindOrLink(table, key, value);
   return found != nullptr ? HashTableValue(found) : value;
}

bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value)
{
   HashEntry *found = HashTableFindOrLink(table, key, value);
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
   HashEntry *found = HashTableFind(table, key);
   if (found == nullptr) {
      return false;
   }
   if (table->atomic) {
      void *old = expected;
      if (!std::atomic_ref(found->value)
               .compare_exchange_strong(old, value, std::memory_order_acq_rel, std::memory_order_relaxed)) {
         return false;
      }
      HashTableDiscardValue(table, old);
      return true;
   }
   if (found->value != expected) {
      return false;
   }
   HashTableDiscardValue(table, found->value);
   found->value = value;
   return true;
}

bool HashTable_Lookup(const HashTable *table, const void *key, void **value)
{
   HashEntry *found = HashTableFind(table, key);
   if (found != nullptr && value != nullptr) {
      *value = HashTableValue(found);
   }
   return found != nullptr;
}

bool HashTable_LookupAndDelete(HashTable *table, const void *key, void **value)
{
   HashEntry **link = &table->buckets[HashTableBucket(table, key)].head;
   while (*link != nullptr && !HashTableMatches(table->keyType, (*link)->key, key)) {
      link = &(*link)->next;
   }
   HashEntry *found = *link;
   if (found == nullptr) {
      return false;
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
   HashTableArray(table, keys, size, [](const HashEntry *entry) { return entry->key; });
}

void HashTable_ValueArray(const HashTable *table, void ***values, size_t *size)
{
   HashTableArray(table, values, size, [](const HashEntry *entry) { return entry->value; });
}

int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback, void *clientData)
{
   return HashTableVisit(table, [&](HashEntry *entry) {
      return callback(static_cast<const char *>(entry->key), entry->value, clientData);
   });
}
