#ifndef TESSEL_LIB_MISC_HASHTABLE_H
#define TESSEL_LIB_MISC_HASHTABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

/* A chained table from keys to pointer-sized values that are opaque to it. The number of buckets is fixed at
   creation: the caller sizes the table for what it will hold. Exhausted memory ends the process.

   Concurrency: a table belongs to one thread at a time, unless it was made with HASH_FLAG_ATOMIC. Then
   HashTable_Lookup, HashTable_Insert, HashTable_LookupOrInsert, HashTable_ReplaceOrInsert and
   HashTable_ReplaceIfEqual may run in any number of threads without a lock; none of them waits for another.
   No other routine may run beside a change. A replaced value goes to the value-free routine at once, although
   another thread may have just looked it up: with values that are freed, the callers must keep readers and
   replacements apart. */
struct HashTable;

/* Called with each value that the table discards; null: values are left alone. */
using HashTableFreeValue = void (*)(void *value);

/* Gets one entry; a result that is not 0 ends the walk. It must not change the table's keys. */
using HashTableForEachCallback = int (*)(const void *key, void *value, void *clientData);

/* Creation flags: one key type and any of the two options. The keys are NUL-terminated strings, compared byte by
   byte or without regard to case, or else the pointer itself is the key, a 64-bit integer. Case is what
   tolower and strcasecmp take it to be in the C locale, the only one this system runs in: A to Z. A process
   that sets another one still finds every key that it has put in. */
constexpr uint32_t HASH_STRING_KEY = 0;
constexpr uint32_t HASH_ISTRING_KEY = 1;
constexpr uint32_t HASH_INT_KEY = 2;

constexpr uint32_t HASH_FLAG_ATOMIC = 8;

/* The table keeps its own copies of string keys. Without it the caller's key string must stay as it is for as long
   as its entry is in the table. */
constexpr uint32_t HASH_FLAG_COPYKEY = 16;

/* A new, empty table, released with HashTable_Free. The process ends unless bucketCount is a power of two, 2 or
   more to be of use. */
[[nodiscard]] HashTable *HashTable_Alloc(uint32_t bucketCount, uint32_t flags, HashTableFreeValue freeValue);

/* The table in *variable, which is made first, exactly once, if the variable holds null. Callable from several
   threads on one variable: all get the same table. */
HashTable *HashTable_AllocOnce(std::atomic<HashTable *> *variable, uint32_t bucketCount, uint32_t flags,
                               HashTableFreeValue freeValue);

/* Discard all entries and the table itself; null is ignored. Both names do the same. */
void HashTable_Free(HashTable *table);
void HashTable_FreeUnsafe(HashTable *table);

/* Discards all entries. */
void HashTable_Clear(HashTable *table);

/* True: the key was new and now has the value. False: the key is present, its value unchanged, and the value
   offered still the caller's. */
bool HashTable_Insert(HashTable *table, const void *key, void *value);

/* The value that the key has after the call: the one it had, the value offered then still the caller's, or else
   the one offered. */
void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value);

/* The key has the value after the call. True: it was present and its old value was discarded, even if that is the
   same pointer as the new one. False: it was new. */
bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value);

/* Gives the key a new value, and discards the expected one, if that is the value it has. False: the key is absent
   or has another value; nothing has changed and the value offered is still the caller's. */
bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *expected, void *value);

/* True: the key is present, and its value, still the table's, is in *value unless value is null. False: *value is
   untouched. Allocates nothing. */
bool HashTable_Lookup(const HashTable *table, const void *key, void **value);

/* Removes the key. True: it was present; its value is in *value and now the caller's, or was discarded if value is
   null. False: *value is untouched. */
bool HashTable_LookupAndDelete(HashTable *table, const void *key, void **value);

/* As HashTable_LookupAndDelete with the value discarded. */
bool HashTable_Delete(HashTable *table, const void *key);

/* The number of entries. After racing inserts the number of an atomic table may stay too low, never too high. */
size_t HashTable_GetNumElements(const HashTable *table);

/* *keys is a new array, which the caller frees, of the *size keys as the table holds them, or null for an empty
   table. A key in it stays valid until its entry is removed. Order: bucket by bucket, in each the entry
   inserted last comes first. *size is what HashTable_GetNumElements gives: entries it does not count may be
   left out. */
void HashTable_KeyArray(const HashTable *table, const void ***keys, size_t *size);

/* The same with the values, which stay the table's, in the same order. */
void HashTable_ValueArray(const HashTable *table, void ***values, size_t *size);

/* Calls the callback for every entry, in the same order, until it gives a result that is not 0, which is
   returned; otherwise 0. */
int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback, void *clientData);

#endif
