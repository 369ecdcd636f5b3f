#include "lib/user/dictionary/state.h"

#include "base/owned.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"

#include <cstring>

namespace {

constexpr const char *MODULE = "lib/user/dictionary_core";

constexpr uint32_t DEFAULT_BUCKETS = 512;

/* By how much a crowded table grows, and up to where. */
constexpr uint32_t GROWTH = 8;
constexpr uint32_t MANY_BUCKETS = uint32_t{1} << 28;

void DictionaryInitRing(DictionaryLink *head)
{
   head->previous = head->next = head;
}

void DictionaryLinkBefore(DictionaryLink *place, DictionaryLink *link)
{
   link->next = place;
   link->previous = place->previous;
   place->previous->next = link;
   place->previous = link;
}

void DictionaryUnlink(DictionaryLink *link)
{
   if (link->previous->next != link || link->next->previous != link) {
      Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
   }
   link->previous->next = link->next;
   link->next->previous = link->previous;
}

/* A record of zeros with room for a string behind it. */
template <typename Record> Record *DictionaryTakeRecord(Dictionary *dictionary, std::string_view string)
{
   void *const piece = SecretArena_Take(&dictionary->arena, sizeof(Record) + string.size() + 1);
   char *const behind = static_cast<char *>(memset(piece, 0, sizeof(Record))) + sizeof(Record);
   behind[string.copy(behind, string.size())] = '\0';
   return static_cast<Record *>(piece);
}

void DictionaryGiveRecord(Dictionary *dictionary, DictionaryEntry *entry)
{
   DictionaryDropText(dictionary, entry);
   SecretArena_Give(&dictionary->arena, entry, sizeof *entry + strlen(entry->Name()) + 1);
}

void DictionaryRemoveLine(Dictionary *dictionary, DictionaryLine *line)
{
   DictionaryUnlink(line);
   SecretArena_Give(&dictionary->arena, line, sizeof *line + line->length + 1);
}

void DictionaryMakeTable(Dictionary *dictionary, uint32_t bucketCount)
{
   dictionary->bucketCount = bucketCount;
   /* The keys are the entries' own names. */
   dictionary->table = HashTable_Alloc(bucketCount, dictionary->tableFlags, nullptr);
}

/* No chain grows long, however many names there are. */
void DictionaryGrowTable(Dictionary *dictionary)
{
   if (dictionary->entryCount <= dictionary->bucketCount || dictionary->bucketCount >= MANY_BUCKETS) {
      return;
   }
   HashTable_Free(dictionary->table);
   DictionaryMakeTable(dictionary, dictionary->bucketCount * GROWTH);
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      HashTable_Insert(dictionary->table, entry->Name(), entry);
   }
}

} // namespace

DictionaryEntry *DictionaryFind(const Dictionary *dictionary, const char *name)
{
   void *entry = nullptr;
   HashTable_Lookup(dictionary->table, name, &entry);
   return static_cast<DictionaryEntry *>(entry);
}

DictionaryEntry *DictionaryAddEntry(Dictionary *dictionary, std::string_view name)
{
   auto *entry = DictionaryTakeRecord<DictionaryEntry>(dictionary, name);
   if (!HashTable_Insert(dictionary->table, entry->Name(), entry)) {
      DictionaryGiveRecord(dictionary, entry);
      return nullptr;
   }
   entry->isProtected = dictionary->defaultProtected;
   DictionaryLinkBefore(&dictionary->entries, entry);
   dictionary->entryCount++;
   DictionaryGrowTable(dictionary);
   return entry;
}

void DictionaryRemoveEntry(Dictionary *dictionary, DictionaryEntry *entry)
{
   HashTable_Delete(dictionary->table, entry->Name());
   DictionaryUnlink(entry);
   dictionary->entryCount--;
   if (entry->line != nullptr) {
      DictionaryRemoveLine(dictionary, entry->line);
   }
   DictionaryGiveRecord(dictionary, entry);
}

DictionaryLine *DictionaryAddLine(Dictionary *dictionary, DictionaryLink *before, std::string_view text)
{
   auto *line = DictionaryTakeRecord<DictionaryLine>(dictionary, text);
   line->length = text.size();
   DictionaryLinkBefore(before, line);
   return line;
}

void DictionaryAddReadLine(Dictionary *dictionary, std::string_view text, DictionaryEntry *entry)
{
   DictionaryLine *const line = DictionaryAddLine(dictionary, &dictionary->lines, text);
   line->number = dictionary->lineNumber;
   line->entry = entry;
   if (entry != nullptr) {
      entry->line = line;
   }
}

void DictionaryReplaceLine(Dictionary *dictionary, DictionaryEntry *entry, std::string_view text)
{
   DictionaryLine *const old = entry->line;
   entry->line = DictionaryAddLine(dictionary, old, text);
   entry->line->entry = entry;
   entry->line->number = old->number;
   DictionaryRemoveLine(dictionary, old);
}

void DictionarySetText(Dictionary *dictionary, DictionaryEntry *entry, std::string_view text)
{
   const std::string_view kept = text.substr(0, text.find('\0'));
   auto *copy = static_cast<char *>(SecretArena_Take(&dictionary->arena, kept.size() + 1));
   copy[kept.copy(copy, kept.size())] = '\0';
   DictionaryDropText(dictionary, entry);
   entry->text = copy;
}

void DictionaryDropText(Dictionary *dictionary, DictionaryEntry *entry)
{
   if (entry->text != nullptr) {
      SecretArena_Give(&dictionary->arena, entry->text, strlen(entry->text) + 1);
      entry->text = nullptr;
   }
}

Dictionary *Dictionary_Create()
{
   return Dictionary_CreateWithSize(0, false);
}

Dictionary *Dictionary_CreateWithSize(uint32_t bucketCount, bool caseSensitive)
{
   auto *dictionary = static_cast<Dictionary *>(Util_SafeCalloc(1, sizeof(Dictionary)));
   DictionaryInitRing(&dictionary->entries);
   DictionaryInitRing(&dictionary->lines);
   dictionary->tableFlags = caseSensitive ? HASH_STRING_KEY : HASH_ISTRING_KEY;
   DictionaryMakeTable(dictionary, bucketCount != 0 ? bucketCount : DEFAULT_BUCKETS);
   dictionary->encoding = ENCODING_UNKNOWN;
   return dictionary;
}

void Dictionary_Free(Dictionary *dictionary)
{
   if (dictionary == nullptr) {
      return;
   }
   const Owned<Dictionary> owned(dictionary);
   Dictionary_Clear(dictionary);
   HashTable_Free(dictionary->table);
   Secret_Zero(dictionary, sizeof *dictionary);
}

void Dictionary_Clear(Dictionary *dictionary)
{
   HashTable_Clear(dictionary->table);
   SecretArena_Clear(&dictionary->arena);
   DictionaryInitRing(&dictionary->entries);
   DictionaryInitRing(&dictionary->lines);
   dictionary->entryCount = 0;
   dictionary->encoding = ENCODING_UNKNOWN;
   dictionary->changed = false;
}
