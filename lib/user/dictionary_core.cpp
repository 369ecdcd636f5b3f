#include "lib/user/dictionary_core.h"

#include "base/owned.h"
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
constexpr size_t NAME_SIZE = 1024;

/* What a getter falls back on and a setter is given: the text, which is borrowed, or the bits. */
struct DictionaryGiven {
   const char *text;
   uint64_t bits;
};

constexpr uint64_t DictionaryWiden(int64_t value)
{
   return static_cast<uint64_t>(value);
}

void DictionaryUnsetEntry(Dictionary *dictionary, DictionaryEntry *entry)
{
   dictionary->changed = dictionary->changed || !entry->notPersistent;
   DictionaryRemoveEntry(dictionary, entry);
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
bool DictionaryConvertEntry(Dictionary *dictionary, DictionaryEntry *entry, uint32_t type, uint64_t fallback)
{
   if (DictionaryIsText(type)) {
      entry->type = type;
      return true;
   }
   const bool valid =
       DictionaryConvertText(entry->text, type, fallback, entry->Name(), dictionary->messages, &entry->bits);
   DictionaryDropText(dictionary, entry);
   entry->type = type;
   return valid;
}

/* A new entry that no file has. */
DictionaryEntry *DictionaryMakeEntry(Dictionary *dictionary, DictionaryGiven value, uint32_t type,
                                     bool isProtected, const char *name)
{
   DictionaryEntry *const entry = DictionaryAddEntry(dictionary, name);
   entry->type = type;
   entry->isProtected = isProtected;
   if (DictionaryIsText(type)) {
      DictionarySetText(dictionary, entry, value.text != nullptr ? value.text : "");
   } else {
      entry->bits = value.bits;
   }
   return entry;
}

/* Whether a fallback counts as no value, so that nothing is stored for it. */
bool DictionaryIsEmptyFallback(uint32_t type, DictionaryGiven fallback)
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
DictionaryGiven DictionaryGet(Dictionary *dictionary, DictionaryGiven fallback, uint32_t request,
                              const char *name)
{
   const uint32_t type = request & TYPE_MASK;
   const bool wantsProtected = DictionaryWantsProtected(dictionary, request);
   DictionaryEntry *const entry = DictionaryFind(dictionary, name);

   DictionaryCheckType(type);
   if (entry == nullptr) {
      if (!DictionaryIsEmptyFallback(type, fallback)) {
         DictionaryMakeEntry(dictionary, fallback, type, wantsProtected, name)->notPersistent = true;
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
   return {.text = entry->text, .bits = entry->bits};
}

using DictionaryName = std::array<char, NAME_SIZE>;

void DictionaryFormatName(DictionaryName *name, const char *format, va_list args) FORMAT_ARGUMENTS(2, 0);

void DictionaryFormatName(DictionaryName *name, const char *format, va_list args)
{
   Str_Vsnprintf(name->data(), name->size(), format, args);
}

uint64_t DictionaryGetBits(Dictionary *dictionary, uint64_t fallback, uint32_t type, const char *format,
                           va_list args) FORMAT_ARGUMENTS(4, 0);

uint64_t DictionaryGetBits(Dictionary *dictionary, uint64_t fallback, uint32_t type, const char *format,
                           va_list args)
{
   DictionaryName name;

   DictionaryFormatName(&name, format, args);
   return DictionaryGet(dictionary, {.text = nullptr, .bits = fallback}, type, name.data()).bits;
}

char *DictionaryCopyString(Dictionary *dictionary, const char *fallback, uint32_t request, const char *format,
                           va_list args) FORMAT_ARGUMENTS(4, 0);

char *DictionaryCopyString(Dictionary *dictionary, const char *fallback, uint32_t request, const char *format,
                           va_list args)
{
   DictionaryName name;

   DictionaryFormatName(&name, format, args);
   return Util_SafeStrdup(
       DictionaryGet(dictionary, {.text = fallback, .bits = 0}, request, name.data()).text);
}

/* Whether the entry now has another text. */
bool DictionaryChangeText(Dictionary *dictionary, DictionaryEntry *entry, const char *text)
{
   const char *wanted = text != nullptr ? text : "";
   if (strcmp(entry->text, wanted) == 0) {
      return false;
   }
   DictionarySetText(dictionary, entry, wanted);
   return true;
}

bool DictionaryReplaceBits(DictionaryEntry *entry, uint64_t bits)
{
   const bool differs = entry->bits != bits;
   entry->bits = bits;
   return differs;
}

/* Puts a value into an entry that exists; whether that made a difference. */
bool DictionaryReplaceValue(Dictionary *dictionary, DictionaryEntry *entry, uint32_t type,
                            DictionaryGiven value)
{
   bool differs = false;
   uint64_t bits;

   if (entry->type == DICTIONARY_UNTYPED) {
      /* A file's text that is none of the type is not what is written back: a difference, whatever comes. */
      differs = !DictionaryConvertEntry(dictionary, entry, type, 0);
   }
   if (DictionaryIsText(type)) {
      if (DictionaryIsText(entry->type)) {
         return DictionaryChangeText(dictionary, entry, value.text);
      }
      DictionaryConvertText(value.text != nullptr ? value.text : "", entry->type, entry->bits, entry->Name(),
                            dictionary->messages, &bits);
      return DictionaryReplaceBits(entry, bits);
   }
   if (entry->type != type) {
      DictionaryDropText(dictionary, entry);
      entry->type = type;
      differs = true;
   }
   return DictionaryReplaceBits(entry, value.bits) || differs;
}

void DictionarySet(Dictionary *dictionary, DictionaryGiven value, uint32_t request, const char *name)
{
   const uint32_t type = request & TYPE_MASK;
   const bool wantsProtected = DictionaryWantsProtected(dictionary, request);
   const bool notPersistent = (request & DICTIONARY_NOT_PERSISTENT) != 0;
   DictionaryEntry *entry = DictionaryFind(dictionary, name);

   if (entry == nullptr) {
      entry = DictionaryMakeEntry(dictionary, value, type, wantsProtected, name);
      entry->modified = true;
   } else {
      const bool differs = DictionaryReplaceValue(dictionary, entry, type, value);
      entry->modified = entry->modified || differs || entry->isProtected != wantsProtected;
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
   const std::string_view view(name);

   return view == "dataFileKey" || view == "ancestorDataFileKeys" || view == "annotation" ||
          strncasecmp(name, "guestinfo.", strlen("guestinfo.")) == 0 ||
          strncasecmp(name, "encryption.", strlen("encryption.")) == 0 ||
          (view.size() > 4 && view.ends_with(".key"));
}

void DictionaryDumpEntry(const Dictionary *dictionary, const DictionaryEntry *entry)
{
   if (DictionaryIsSensitive(entry->Name()) || (dictionary->protectionKey != nullptr && entry->isProtected)) {
      Log("DICT %25s = <not printed>\n", entry->Name());
      return;
   }
   if (DictionaryIsText(entry->type)) {
      Log("DICT %25s = \"%s\"\n", entry->Name(), entry->text);
      return;
   }
   switch (entry->type) {
   case DICTIONARY_BOOL:
   case DICTIONARY_TRISTATE: {
      const Owned<char> word(DictionaryFormatBits(entry->type, entry->bits));
      Log("DICT %25s = \"%s\"\n", entry->Name(), word.get());
      break;
   }
   case DICTIONARY_INT32:
      Log("DICT %25s = \"%i\"\n", entry->Name(), static_cast<int32_t>(entry->bits));
      break;
   case DICTIONARY_DOUBLE:
      Log("DICT %25s = \"%g\"\n", entry->Name(), std::bit_cast<double>(entry->bits));
      break;
   case DICTIONARY_INT64:
      Log("DICT %25s = \"%lld\"\n", entry->Name(), static_cast<long long>(entry->bits));
      break;
   default:
      Log("DICT %25s = <unknown parameter type>\n", entry->Name());
      break;
   }
}

} // namespace

char *DictionaryFormatValue(const DictionaryEntry *entry)
{
   char *const text = DictionaryIsText(entry->type) ? Util_SafeStrdup(entry->text)
                                                    : DictionaryFormatBits(entry->type, entry->bits);
   if (text == nullptr) {
      Panic("Dictionary internal error - unknown parameter type\n");
   }
   return text;
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
   char *const text = DictionaryCopyString(dictionary, fallback, DICTIONARY_STRING, format, args);
   va_end(args);
   return text;
}

char *Dictionary_GetStringPlain(Dictionary *dictionary, const char *fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text =
       DictionaryCopyString(dictionary, fallback, DICTIONARY_STRING | DICTIONARY_PLAIN, format, args);
   va_end(args);
   return text;
}

char *Dictionary_GetStringProtected(Dictionary *dictionary, const char *fallback, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   char *const text =
       DictionaryCopyString(dictionary, fallback, DICTIONARY_STRING | DICTIONARY_PROTECTED, format, args);
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
   DictionaryName name;
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
      if (strncasecmp(entry->Name(), prefix, length) == 0) {
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
      if (!entry->notPersistent && !visit(entry->Name(), context)) {
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
