#ifndef TESSEL_LIB_MISC_HASHTABLE_H
#define TESSEL_LIB_MISC_HASHTABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

struct HashTable;

using HashTableFreeValue = void (*)(void *value);
using HashTableForEachCallback = int (*)(const char *key, void *value, void *clientData);

constexpr uint32_t HASH_STRING_KEY = 0;
constexpr uint32_t HASH_ISTRING_KEY = 1;
constexpr uint32_t HASH_INT_KEY = 2;
constexpr uint32_t HASH_FLAG_ATOMIC = 8;
constexpr uint32_t HASH_FLAG_COPYKEY = 16;

[[nodiscard]] HashTable *HashTable_Alloc(uint32_t bucketCount, uint32_t flags, HashTableFreeValue freeValue);
HashTable *HashTable_AllocOnce(std::atomic<HashTable *> *variable, uint32_t bucketCount, uint32_t flags,
                               HashTableFreeValue freeValue);
void HashTable_Free(HashTable *table);
void HashTable_FreeUnsafe(HashTable *table);
void HashTable_Clear(HashTable *table);
bool HashTable_Insert(HashTable *table, const void *key, void *value);
void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value);
bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value);
bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *expected, void *value);
bool HashTable_Lookup(const HashTable *table, const void *key, void **value);
bool HashTable_LookupAndDelete(HashTable *table, const void *key, void **value);
bool HashTable_Delete(HashTable *table, const void *key);
size_t HashTable_GetNumElements(const HashTable *table);
void HashTable_KeyArray(const HashTable *table, const void ***keys, size_t *size);
void HashTable_ValueArray(const HashTable *table, void ***values, size_t *size);
int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback, void *clientData);

#endif
