#include "lib/user/dictionary_core.h"

#include "base/owned.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"
#include "lib/user/dictionary/convert.h"
#include "lib/user/dictionary/state.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdarg>
#include <cstring>
#include <string_view>
#include <strings.h>

namespace {

constexpr const char *MODULE = "lib/user/dictionary_core";

constexpr uint32_t TYPE_MASK = 0xFFF;
constexpr uint32_t DEFAULT_BUCKETS = 512;
constexpr size_t NAME_SIZE = 1024;

/* What a getter falls back on and a setter is given: the text, which is borrowed, or the bits. */
struct GivenValue {
   const char *text;
   uint64_t bits;
};

constexpr uint64_t DictionaryWiden(int64_t value)
{
   return static_cast<uint64_t>(value);
}

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

/* Zeroes a text, before the arena's end if it lies there, and frees it if it is a block of its own. */
void DictionaryReleaseText(char *text, bool isOwn)
{
   if (isOwn) {
      Secret_FreeString(text);
   } else if (text != nullptr) {
      Secret_Zero(text, strlen(text));
   }
}

/* Release what has a block of its own; the arena does the rest at its end. */
void DictionaryReleaseLine(DictionaryLine *line)
{
   const Owned<DictionaryLine> owned(line->inArena ? nullptr : line);
   if (line->ownsText) {
      Secret_FreeString(line->text);
   }
}

void DictionaryReleaseEntry(DictionaryEntry *entry)
{
   if (entry->ownsText) {
      Secret_FreeString(entry->value.text);
   }
   if (entry->lineText != nullptr) {
      Secret_FreeString(entry->lineText);
   }
   if (!entry->inArena) {
      const Owned<DictionaryEntry> owned(entry);
      Secret_FreeString(entry->name);
      Secret_Zero(&entry->value, sizeof entry->value);
   }
}

void DictionaryRemoveLine(DictionaryLine *line)
{
   DictionaryUnlink(line);
   DictionaryReplaceText(line, nullptr);
   DictionaryReleaseLine(line);
}

/* Out of the ring and into nothing; the table is the caller's to mind. */
void DictionaryRemoveEntry(Dictionary *dictionary, DictionaryEntry *entry)
{
   DictionaryUnlink(entry);
   dictionary->entryCount--;
   if (entry->line != nullptr) {
      DictionaryRemoveLine(entry->line);
   }
   DictionaryReplaceText(entry, nullptr);
   DictionaryReleaseEntry(entry);
}

void DictionaryUnsetEntry(Dictionary *dictionary, DictionaryEntry *entry)
{
   dictionary->changed = dictionary->changed || !entry->notPersistent;
   DictionaryDropEntry(dictionary, entry);
}

void DictionaryLinkEntry(Dictionary *dictionary, DictionaryEntry *entry)
{
   DictionaryLinkBefore(&dictionary->entries, entry);
   dictionary->entryCount++;
}

/* An entry that no file has; the value is taken over, and the name must be new. */
DictionaryEntry *DictionaryNewEntry(Dictionary *dictionary, const char *name, uint32_t type,
                                    DictionaryValue value, bool isProtected)
{
   auto *entry = static_cast<DictionaryEntry *>(Util_SafeCalloc(1, sizeof(DictionaryEntry)));
   entry->name = Util_SafeStrdup(name);
   entry->type = type;
   entry->value = value;
   entry->ownsText = true;
   entry->isProtected = isProtected;
   DictionaryLinkEntry(dictionary, entry);
   HashTable_Insert(dictionary->table, entry->name, entry);
   return entry;
}

bool DictionaryWantsProtected(const Dictionary *dictionary, uint32_t request)
{
   if ((request & (DICTIONARY_PROTECTED | DICTIONARY_PLAIN)) == 0) {
      return dictionary->defaultProtected;
   }
   return (request & DICTIONARY_PROTECTED) != 0;
}

/* Gives an untyped entry a type, once and for all. False: its text was none of that type, and it now has the bits of
   the fallback. */
bool DictionaryConvertEntry(const Dictionary *dictionary, DictionaryEntry *entry, uint32_t type,
                            uint64_t fallback)
{
   if (DictionaryIsText(type)) {
      entry->type = type;
      return true;
   }
   const bool valid = DictionaryConvertText(entry->value.text, type, fallback, entry->name,
                                            dictionary->messages, &entry->value.bits);
   DictionaryReplaceText(entry, nullptr);
   entry->type = type;
   return valid;
}

DictionaryValue DictionaryCopyValue(uint32_t type, GivenValue value)
{
   if (!DictionaryIsText(type)) {
      return {.text = nullptr, .bits = value.bits};
   }
   return {.text = Util_SafeStrdup(value.text != nullptr ? value.text : ""), .bits = 0};
}

/* Whether a fallback counts as no value, so that nothing is stored for it. */
bool DictionaryIsEmptyFallback(uint32_t type, GivenValue fallback)
{
   switch (type) {
   case DICTIONARY_UNTYPED:
   case DICTIONARY_STRING:
      return fallback.text == nullptr;
   case DICTIONARY_INT32:
   case DICTIONARY_TRISTATE:
      return fallback.bits == 0 || static_cast<int32_t>(fallback.bits) == -1;
   case DICTIONARY_DOUBLE:
      return std::bit_cast<double>(fallback.bits) == 0;
   default:
      return fallback.bits == 0;
   }
}

void DictionaryCheckType(uint32_t type)
{
   if (type > DICTIONARY_INT64) {
      Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
   }
}

/* The value for a request; text is the entry's or the fallback's own. */
GivenValue DictionaryGet(Dictionary *dictionary, GivenValue fallback, uint32_t request, const char *name)
{
   const uint32_t type = request & TYPE_MASK;
   const bool wantsProtected = DictionaryWantsProtected(dictionary, request);
   DictionaryEntry *entry = DictionaryFind(dictionary, name);

   DictionaryCheckType(type);
   if (entry == nullptr) {
      if (!DictionaryIsEmptyFallback(type, fallback)) {
         entry =
             DictionaryNewEntry(dictionary, name, type, DictionaryCopyValue(type, fallback), wantsProtected);
         entry->notPersistent = true;
      }
      return fallback;
   }
   /* Hidden from this request, but the name is taken, so that the fallback cannot be stored. */
   if (dictionary->protectionKey != nullptr && entry->isProtected != wantsProtected) {
      return fallback;
   }
   if (type != DICTIONARY_UNTYPED && entry->type == DICTIONARY_UNTYPED) {
      DictionaryConvertEntry(dictionary, entry, type, fallback.bits);
   }
   if (DictionaryIsText(type) != DictionaryIsText(entry->type)) {
      return fallback;
   }
   return {.text = entry->value.text, .bits = entry->value.bits};
}

using NameBuffer = std::array<char, NAME_SIZE>;

void DictionaryFormatName(NameBuffer *name, const char *format, va_list args) FORMAT_ARGUMENTS(2, 0);

void DictionaryFormatName(NameBuffer *name, const char *format, va_list args)
{
   Str_Vsnprintf(name->data(), name->size(), format, args);
}

uint64_t DictionaryGetBits(Dictionary *dictionary, uint64_t fallback, uint32_t type, const char *format,
                           va_list args) FORMAT_ARGUMENTS(4, 0);

uint64_t DictionaryGetBits(Dictionary *dictionary, uint64_t fallback, uint32_t type, const char *format,
                           va_list args)
{
   NameBuffer name;

   DictionaryFormatName(&name, format, args);
   return DictionaryGet(dictionary, {.text = nullptr, .bits = fallback}, type, name.data()).bits;
}

char *DictionaryGetText(Dictionary *dictionary, const char *fallback, uint32_t request, const char *format,
                        va_list args) FORMAT_ARGUMENTS(4, 0);

char *DictionaryGetText(Dictionary *dictionary, const char *fallback, uint32_t request, const char *format,
                        va_list args)
{
   NameBuffer name;

   DictionaryFormatName(&name, format, args);
   return Util_SafeStrdup(
       DictionaryGet(dictionary, {.text = fallback, .bits = 0}, request, name.data()).text);
}

/* Whether the entry now has another text. */
bool DictionaryChangeText(DictionaryEntry *entry, const char *text)
{
   const char *wanted = text != nullptr ? text : "";
   if (strcmp(entry->value.text, wanted) == 0) {
      return false;
   }
   DictionaryReplaceText(entry, Util_SafeStrdup(wanted));
   return true;
}

bool DictionaryReplaceBits(DictionaryEntry *entry, uint64_t bits)
{
   const bool differs = entry->value.bits != bits;
   entry->value.bits = bits;
   return differs;
}

/* Puts a value into an entry that exists; whether that made a difference. */
bool DictionaryReplaceValue(const Dictionary *dictionary, DictionaryEntry *entry, uint32_t type,
                            GivenValue value)
{
   bool differs = false;
   uint64_t bits;

   if (entry->type == DICTIONARY_UNTYPED) {
      /* A file's text that is none of the type is not what is written back: a difference, whatever comes. */
      differs = !DictionaryConvertEntry(dictionary, entry, type, 0);
   }
   if (DictionaryIsText(type)) {
      if (DictionaryIsText(entry->type)) {
         return DictionaryChangeText(entry, value.text);
      }
      DictionaryConvertText(value.text != nullptr ? value.text : "", entry->type, entry->value.bits,
                            entry->name, dictionary->messages, &bits);
      return DictionaryReplaceBits(entry, bits);
   }
   if (entry->type != type) {
      DictionaryReplaceText(entry, nullptr);
      entry->type = type;
      differs = true;
   }
   return DictionaryReplaceBits(entry, value.bits) || differs;
}

void DictionarySet(Dictionary *dictionary, GivenValue value, uint32_t request, const char *name)
{
   const uint32_t type = request & TYPE_MASK;
   const bool wantsProtected = DictionaryWantsProtected(dictionary, request);
   const bool notPersistent = (request & DICTIONARY_NOT_PERSISTENT) != 0;
   DictionaryEntry *entry = DictionaryFind(dictionary, name);

   if (entry == nullptr) {
      entry = DictionaryNewEntry(dictionary, name, type, DictionaryCopyValue(type, value), wantsProtected);
      entry->modified = true;
   } else {
      const bool differs = DictionaryReplaceValue(dictionary, entry, type, value);
      const bool appears = entry->notPersistent && !notPersistent;
      entry->modified = entry->modified || differs || appears || entry->isProtected != wantsProtected;
      entry->isProtected = wantsProtected;
   }
   entry->notPersistent = notPersistent;
   dictionary->changed = dictionary->changed || entry->modified;
}

void DictionarySetBits(Dictionary *dictionary, uint64_t bits, uint32_t flags, uint32_t type, const char *name)
{
   DictionarySet(dictionary, {.text = nullptr, .bits = bits}, (flags & ~TYPE_MASK) | type, name);
}

/* Names whose values are never logged. */
bool DictionaryIsSensitive(const char *name)
{
   static constexpr std::string_view guestInfo = "guestinfo.";
   const std::string_view view(name);

   return view == "dataFileKey" || view == "ancestorDataFileKeys" || view == "annotation" ||
          strncasecmp(name, guestInfo.data(), guestInfo.size()) == 0 ||
          (view.size() > 4 && view.ends_with(".key"));
}

void DictionaryDumpEntry(const Dictionary *dictionary, const DictionaryEntry *entry)
{
   if (DictionaryIsSensitive(entry->name) || (dictionary->protectionKey != nullptr && entry->isProtected)) {
      Log("DICT %25s = <not printed>\n", entry->name);
      return;
   }
   if (DictionaryIsText(entry->type)) {
      Log("DICT %25s = \"%s\"\n", entry->name, entry->value.text);
      return;
   }
   switch (entry->type) {
   case DICTIONARY_BOOL:
   case DICTIONARY_TRISTATE: {
      const Owned<char> word(DictionaryFormatBits(entry->type, entry->value.bits));
      Log("DICT %25s = \"%s\"\n", entry->name, word.get());
      break;
   }
   case DICTIONARY_INT32:
      Log("DICT %25s = \"%i\"\n", entry->name, static_cast<int32_t>(entry->value.bits));
      break;
   case DICTIONARY_DOUBLE:
      Log("DICT %25s = \"%g\"\n", entry->name, std::bit_cast<double>(entry->value.bits));
      break;
   case DICTIONARY_INT64:
      Log("DICT %25s = \"%lld\"\n", entry->name, static_cast<long long>(entry->value.bits));
      break;
   default:
      Log("DICT %25s = <unknown parameter type>\n", entry->name);
      break;
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
   auto *entry =
       static_cast<DictionaryEntry *>(SecretArena_Take(&dictionary->arena, sizeof(DictionaryEntry)));
   entry->inArena = true;
   entry->name = SecretArena_CopyString(&dictionary->arena, name.data(), name.size());
   if (!HashTable_Insert(dictionary->table, entry->name, entry)) {
      return nullptr;
   }
   entry->isProtected = dictionary->defaultProtected;
   DictionaryLinkEntry(dictionary, entry);
   return entry;
}

void DictionaryDropEntry(Dictionary *dictionary, DictionaryEntry *entry)
{
   HashTable_Delete(dictionary->table, entry->name);
   DictionaryRemoveEntry(dictionary, entry);
}

DictionaryLine *DictionaryAddReadLine(Dictionary *dictionary, char *text)
{
   auto *line = static_cast<DictionaryLine *>(SecretArena_Take(&dictionary->arena, sizeof(DictionaryLine)));
   line->inArena = true;
   line->text = text;
   line->number = dictionary->lineNumber;
   DictionaryLinkBefore(&dictionary->lines, line);
   return line;
}

void DictionaryInsertLine(DictionaryLink *before, char *text)
{
   auto *line = static_cast<DictionaryLine *>(Util_SafeCalloc(1, sizeof(DictionaryLine)));
   line->text = text;
   line->ownsText = true;
   DictionaryLinkBefore(before, line);
}

void DictionaryReplaceText(DictionaryEntry *entry, char *text)
{
   DictionaryReleaseText(entry->value.text, entry->ownsText);
   entry->value.text = text;
   entry->ownsText = true;
}

void DictionaryReplaceText(DictionaryLine *line, char *text)
{
   DictionaryReleaseText(line->text, line->ownsText);
   line->text = text;
   line->ownsText = true;
}

char *DictionaryFormatValue(const DictionaryEntry *entry)
{
   char *const text = DictionaryIsText(entry->type) ? Util_SafeStrdup(entry->value.text)
                                                    : DictionaryFormatBits(entry->type, entry->value.bits);
   if (text == nullptr) {
      Panic("Dictionary internal error - unknown parameter type\n");
   }
   return text;
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
   /* The keys are the entries' own names. */
   dictionary->table = HashTable_Alloc(bucketCount != 0 ? bucketCount : DEFAULT_BUCKETS,
                                       caseSensitive ? HASH_STRING_KEY : HASH_ISTRING_KEY, nullptr);
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
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      DictionaryReleaseEntry(entry);
   }
   for (DictionaryLine *line : DictionaryRing<DictionaryLine>(dictionary->lines)) {
      DictionaryReleaseLine(line);
   }
   DictionaryInitRing(&dictionary->entries);
   DictionaryInitRing(&dictionary->lines);
   dictionary->entryCount = 0;
   dictionary->fileSize = 0;
   SecretArena_Clear(&dictionary->arena);
   HashTable_Clear(dictionary->table);
   dictionary->encoding = ENCODING_UNKNOWN;
   dictionary->changed = false;
}

void Dictionary_SetMessageList(Dictionary *dictionary, MsgList *messages)
{
   dictionary->messages = messages;
}

void Dictionary_SetHooks(Dictionary *dictionary, const DictionaryHooks *hooks)
{
   dictionary->hooks = hooks != nullptr ? *hooks : DictionaryHooks{};
}

void Dictionary_SetProtectionKey(Dictionary *dictionary, const void *key)
{
   dictionary->protectionKey = key;
}

void Dictionary_SetIntegrityVerified(Dictionary *dictionary, bool integrityVerified)
{
   dictionary->integrityVerified = integrityVerified;
}

void Dictionary_SetDefaultProtection(Dictionary *dictionary, bool defaultProtected)
{
   dictionary->defaultProtected = defaultProtected;
}

bool Dictionary_GetBool(Dictionary *dictionary, bool fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const uint64_t bits = DictionaryGetBits(dictionary, fallback ? 1 : 0, DICTIONARY_BOOL, format, args);
   va_end(args);
   return bits != 0;
}

int32_t Dictionary_GetTriState(Dictionary *dictionary, int32_t fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const uint64_t bits =
       DictionaryGetBits(dictionary, DictionaryWiden(fallback), DICTIONARY_TRISTATE, format, args);
   va_end(args);
   return static_cast<int32_t>(bits);
}

int32_t Dictionary_GetInt32(Dictionary *dictionary, int32_t fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const uint64_t bits =
       DictionaryGetBits(dictionary, DictionaryWiden(fallback), DICTIONARY_INT32, format, args);
   va_end(args);
   return static_cast<int32_t>(bits);
}

int64_t Dictionary_GetInt64(Dictionary *dictionary, int64_t fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const uint64_t bits =
       DictionaryGetBits(dictionary, DictionaryWiden(fallback), DICTIONARY_INT64, format, args);
   va_end(args);
   return static_cast<int64_t>(bits);
}

double Dictionary_GetDouble(Dictionary *dictionary, double fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const uint64_t bits =
       DictionaryGetBits(dictionary, std::bit_cast<uint64_t>(fallback), DICTIONARY_DOUBLE, format, args);
   va_end(args);
   return std::bit_cast<double>(bits);
}

char *Dictionary_GetString(Dictionary *dictionary, const char *fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text = DictionaryGetText(dictionary, fallback, DICTIONARY_STRING, format, args);
   va_end(args);
   return text;
}

char *Dictionary_GetStringPlain(Dictionary *dictionary, const char *fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text =
       DictionaryGetText(dictionary, fallback, DICTIONARY_STRING | DICTIONARY_PLAIN, format, args);
   va_end(args);
   return text;
}

char *Dictionary_GetStringProtected(Dictionary *dictionary, const char *fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text =
       DictionaryGetText(dictionary, fallback, DICTIONARY_STRING | DICTIONARY_PROTECTED, format, args);
   va_end(args);
   return text;
}

void Dictionary_SetBool(Dictionary *dictionary, bool value, uint32_t flags, const char *name)
{
   DictionarySetBits(dictionary, value ? 1 : 0, flags, DICTIONARY_BOOL, name);
}

void Dictionary_SetTriState(Dictionary *dictionary, int32_t value, uint32_t flags, const char *name)
{
   DictionarySetBits(dictionary, DictionaryWiden(value), flags, DICTIONARY_TRISTATE, name);
}

void Dictionary_SetInt32(Dictionary *dictionary, int32_t value, uint32_t flags, const char *name)
{
   DictionarySetBits(dictionary, DictionaryWiden(value), flags, DICTIONARY_INT32, name);
}

void Dictionary_SetInt64(Dictionary *dictionary, int64_t value, uint32_t flags, const char *name)
{
   DictionarySetBits(dictionary, DictionaryWiden(value), flags, DICTIONARY_INT64, name);
}

void Dictionary_SetDouble(Dictionary *dictionary, double value, uint32_t flags, const char *name)
{
   DictionarySetBits(dictionary, std::bit_cast<uint64_t>(value), flags, DICTIONARY_DOUBLE, name);
}

void Dictionary_SetString(Dictionary *dictionary, const char *value, uint32_t flags, const char *name)
{
   DictionarySet(dictionary, {.text = value, .bits = 0}, (flags & ~TYPE_MASK) | DICTIONARY_STRING, name);
}

void Dictionary_SetStringFormat(Dictionary *dictionary, const char *value, uint32_t flags, const char *format,
                                ...)
{
   NameBuffer name;
   va_list args;

   va_start(args, format);
   DictionaryFormatName(&name, format, args);
   va_end(args);
   Dictionary_SetString(dictionary, value, flags, name.data());
}

void Dictionary_SetFromString(Dictionary *dictionary, const char *text, bool noOverwrite, MsgList *messages)
{
   const size_t nameLength = strcspn(text, "=");
   const char *value = text[nameLength] == '=' ? text + nameLength + 1 : "";
   const SecretString name(Util_SafeStrndup(text, nameLength));

   if (noOverwrite && DictionaryFind(dictionary, name.get()) != nullptr) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.alreadyDefined.string") "Variable \"%s\" is already defined.\n",
                     name.get());
      return;
   }
   MsgList *const own = dictionary->messages;
   dictionary->messages = messages;
   DictionarySet(dictionary, {.text = value, .bits = 0}, DICTIONARY_UNTYPED, name.get());
   dictionary->messages = own;
}

void Dictionary_Unset(Dictionary *dictionary, const char *name)
{
   DictionaryEntry *const entry = DictionaryFind(dictionary, name);
   if (entry != nullptr) {
      DictionaryUnsetEntry(dictionary, entry);
   }
}

void Dictionary_UnsetPrefix(Dictionary *dictionary, const char *prefix)
{
   const size_t length = strlen(prefix);
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (strncasecmp(entry->name, prefix, length) == 0) {
         DictionaryUnsetEntry(dictionary, entry);
      }
   }
}

bool Dictionary_IsDefined(const Dictionary *dictionary, const char *name)
{
   return DictionaryFind(dictionary, name) != nullptr;
}

bool Dictionary_IsChanged(const Dictionary *dictionary)
{
   return dictionary->changed;
}

char *Dictionary_GetText(const Dictionary *dictionary, const char *name)
{
   const DictionaryEntry *const entry = DictionaryFind(dictionary, name);
   return entry != nullptr ? DictionaryFormatValue(entry) : nullptr;
}

int Dictionary_GetLineNumber(const Dictionary *dictionary, const char *name)
{
   const DictionaryEntry *const entry = DictionaryFind(dictionary, name);
   return entry != nullptr && entry->line != nullptr ? entry->line->number : 0;
}

void Dictionary_ForEach(const Dictionary *dictionary, bool (*visit)(const char *name, void *context),
                        void *context)
{
   for (const DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (!entry->notPersistent && !visit(entry->name, context)) {
         return;
      }
   }
}

void Dictionary_Dump(const Dictionary *dictionary)
{
   for (const DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (!entry->notPersistent) {
         DictionaryDumpEntry(dictionary, entry);
      }
   }
}
