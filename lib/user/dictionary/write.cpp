#include "lib/user/dictionary/write.h"

#include "lib/dict/dictll.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/encoding.h"
#include "lib/user/dictionary/state.h"
#include "lib/user/msgList.h"

#include <cstring>

namespace {

constexpr const char *MODULE = "lib/user/dictionary";
constexpr const char *WRITE_TO_BUFFER = "Dictionary_WriteToBuffer";

/* For what a usual change adds. */
constexpr size_t SIZE_MARGIN = 4096;

constexpr const char *KEY_SAFE = "encryption.keySafe";
constexpr const char *INTEGRITY_PROTECTED = "encryption.integrityProtected";
constexpr const char *INTEGRITY_HASH = "encryption.integrityHash";

enum class Rendered : uint8_t { DONE, FAILED, NOT_REPRESENTABLE };

struct Writer {
   Dictionary *dictionary;
   EncodingId encoding;
   MsgList *messages;
   DynBuf *text;
   DynBuf *protectedSection;
};

void DictionaryMarshal(DynBuf *output, const char *name, const char *value)
{
   if (!DictLL_MarshalLine(output, name, value)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
}

void DictionaryAppendBytes(DynBuf *output, const char *bytes, size_t size)
{
   if (!Secret_Append(output, bytes, size)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
}

bool DictionaryIsSet(const Dictionary *dictionary, const char *name)
{
   const SecretString text(Dictionary_GetText(dictionary, name));
   bool invalid;
   return Dictionary_ParseBool(text.get(), &invalid);
}

/* What an entry was read from or last written as, or null. */
const char *DictionaryLineText(const DictionaryEntry *entry)
{
   return entry->line != nullptr ? entry->line->text : entry->lineText;
}

void DictionarySetLineText(DictionaryEntry *entry, char *text)
{
   if (entry->line != nullptr) {
      DictionaryReplaceText(entry->line, text);
   } else {
      Secret_FreeString(entry->lineText);
      entry->lineText = text;
   }
}

/* Puts a new line into the entry's place for it. False, reported: the encoding cannot hold the value. */
bool DictionaryMarshalEntry(const Writer &writer, DictionaryEntry *entry)
{
   SecretString value(DictionaryFormatValue(entry));
   SecretBuffer line;

   if (DictionaryIsText(entry->type) && writer.encoding != ENCODING_UTF8 && *value != '\0') {
      SecretString encoded = DictionaryEncodeValue(value.get(), writer.encoding);
      if (encoded == nullptr) {
         MsgList_Append(writer.messages,
                        MSGLIST_ID("dictionary.badEncodedOutput") "Value \"%s\" for variable \"%s\" is not "
                                                                  "valid in the \"%s\" encoding.\n",
                        value.get(), entry->name, Unicode_EncodingEnumToName(writer.encoding));
         return false;
      }
      value = std::move(encoded);
   }
   DictionaryMarshal(line.get(), entry->name, value.get());
   DictionarySetLineText(entry, Util_SafeStrndup(line.get()->data, line.get()->size - 1));
   return true;
}

bool DictionaryWriteEntry(const Writer &writer, DictionaryEntry *entry, DynBuf *output)
{
   entry->written = true;
   if ((entry->modified || DictionaryLineText(entry) == nullptr) && !DictionaryMarshalEntry(writer, entry)) {
      return false;
   }
   DictionaryMarshal(output, nullptr, DictionaryLineText(entry));
   return true;
}

/* Copies the leading lines that begin with "#" and gives the first line behind them. */
DictionaryLink *DictionaryWriteHead(const Writer &writer)
{
   DictionaryLink *const head = &writer.dictionary->lines;
   DictionaryLink *link = head->next;
   for (; link != head && static_cast<DictionaryLine *>(link)->text[0] == '#'; link = link->next) {
      DictionaryMarshal(writer.text, nullptr, static_cast<DictionaryLine *>(link)->text);
   }
   return link;
}

bool DictionaryWriteLines(const Writer &writer, DictionaryLink *link)
{
   for (; link != &writer.dictionary->lines; link = link->next) {
      const auto *line = static_cast<DictionaryLine *>(link);
      if (line->entry == nullptr) {
         DictionaryMarshal(writer.text, nullptr, line->text);
      } else if (!line->entry->written && !line->entry->isProtected &&
                 !DictionaryWriteEntry(writer, line->entry, writer.text)) {
         return false;
      }
   }
   return true;
}

bool DictionaryWriteRest(const Writer &writer)
{
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(writer.dictionary->entries)) {
      DynBuf *const output = entry->isProtected ? writer.protectedSection : writer.text;
      if (!entry->written && !DictionaryWriteEntry(writer, entry, output)) {
         return false;
      }
   }
   return true;
}

bool DictionaryWriteProtected(const Writer &writer, bool protect)
{
   const DictionaryHooks &hooks = writer.dictionary->hooks;
   DynBuf *const section = writer.protectedSection;

   if (!protect || hooks.protect == nullptr) {
      DictionaryAppendBytes(writer.text, section->data, section->size);
      return true;
   }
   if (section->size == 0) {
      DictionaryAppendBytes(section, "\n", 1);
   }
   DictionaryAppendBytes(section, "", 1);
   const SecretString closed(hooks.protect(writer.dictionary, section->data, hooks.context));
   if (closed == nullptr) {
      return false;
   }
   DictionaryAppendBytes(writer.text, closed.get(), strlen(closed.get()));
   return true;
}

bool DictionaryWriteIntegrity(const Writer &writer)
{
   const DictionaryHooks &hooks = writer.dictionary->hooks;

   if (hooks.integrity == nullptr) {
      return true;
   }
   const SecretString hash(
       hooks.integrity(writer.dictionary, writer.text->data, writer.text->size, hooks.context));
   if (hash == nullptr) {
      return false;
   }
   DictionaryMarshal(writer.text, INTEGRITY_HASH, hash.get());
   return true;
}

/* Entries that count as written before the writing begins: those that never are, and the hash that was read, for which
   the hook gives a new line at the end. */
void DictionaryClearMarks(Dictionary *dictionary)
{
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      entry->written = entry->notPersistent;
   }
   DictionaryEntry *const hash = DictionaryFind(dictionary, INTEGRITY_HASH);
   if (dictionary->hooks.integrity != nullptr && hash != nullptr) {
      hash->written = true;
   }
}

Rendered DictionaryRenderOnce(const Writer &writer, bool protect)
{
   DictionaryLink *const behindHead = DictionaryWriteHead(writer);
   DictionaryMarshal(writer.text, ".encoding", Unicode_EncodingEnumToName(writer.encoding));
   DictionaryClearMarks(writer.dictionary);
   if (!DictionaryWriteLines(writer, behindHead) || !DictionaryWriteRest(writer)) {
      return Rendered::NOT_REPRESENTABLE;
   }
   return DictionaryWriteProtected(writer, protect) && DictionaryWriteIntegrity(writer) ? Rendered::DONE
                                                                                        : Rendered::FAILED;
}

/* Every line with text must be written anew in UTF-8. False: a value is not UTF-8, and nothing has changed. */
bool DictionaryUpgrade(Dictionary *dictionary)
{
   for (const DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (DictionaryIsText(entry->type) && !CodeSet_IsValidUtf8(entry->value.text)) {
         return false;
      }
   }
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      entry->modified = entry->modified || DictionaryIsText(entry->type);
   }
   dictionary->encoding = ENCODING_UTF8;
   return true;
}

} // namespace

bool DictionaryCheckIntegrity(const Dictionary *dictionary)
{
   const bool marked = dictionary->protectionKey != nullptr || Dictionary_IsDefined(dictionary, KEY_SAFE);
   if (!marked || dictionary->integrityVerified || !DictionaryIsSet(dictionary, INTEGRITY_PROTECTED)) {
      return true;
   }
   Log("%s: Dictionary integrity is not valid.", WRITE_TO_BUFFER);
   return false;
}

void DictionaryReportExport(MsgList *messages)
{
   MsgList_Append(messages, MSGLIST_ID("dictionary.writefile.export") "An error occurred while exporting a "
                                                                      "dictionary to a buffer.\n");
}

bool DictionaryRender(Dictionary *dictionary, bool protect, MsgList *messages, DynBuf *text)
{
   if (!DictionaryCheckIntegrity(dictionary)) {
      return false;
   }
   if (!Secret_Reserve(text, dictionary->fileSize + SIZE_MARGIN)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
   while (true) {
      const EncodingId encoding = dictionary->encoding != ENCODING_UNKNOWN
                                      ? dictionary->encoding
                                      : Unicode_ResolveEncoding(ENCODING_DEFAULT);
      SecretBuffer protectedSection;
      const Writer writer = {dictionary, encoding, messages, text, protectedSection.get()};
      const Rendered rendered = DictionaryRenderOnce(writer, protect);
      if (rendered != Rendered::NOT_REPRESENTABLE) {
         dictionary->fileSize = text->size;
         return rendered == Rendered::DONE;
      }
      Log("%s: upgrading encoding from %s to %s\n", WRITE_TO_BUFFER, Unicode_EncodingEnumToName(encoding),
          Unicode_EncodingEnumToName(ENCODING_UTF8));
      if (!DictionaryUpgrade(dictionary)) {
         return false;
      }
      text->size = 0;
   }
}

void DictionaryMarkSaved(Dictionary *dictionary)
{
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      entry->modified = false;
   }
   dictionary->changed = false;
}

bool Dictionary_WriteToBuffer(Dictionary *dictionary, bool protect, char **text, size_t *size)
{
   SecretBuffer rendered;

   *text = nullptr;
   *size = 0;
   if (!DictionaryRender(dictionary, protect, dictionary->messages, rendered.get())) {
      return false;
   }
   DictionaryAppendBytes(rendered.get(), "", 1);
   *size = rendered.get()->size;
   *text = static_cast<char *>(DynBuf_Detach(rendered.get()));
   return true;
}

bool Dictionary_AddInterpreterLine(Dictionary *dictionary, const char *interpreter)
{
   DictionaryLink *const first = dictionary->lines.next;
   if (first != &dictionary->lines && strncmp(static_cast<DictionaryLine *>(first)->text, "#!", 2) == 0) {
      return false;
   }
   DictionaryInsertLine(first, Str_SafeAsprintf(nullptr, "#!%s", interpreter));
   return true;
}

void Dictionary_AddHeaderLines(Dictionary *dictionary, const char *const *lines)
{
   DictionaryLink *const first = dictionary->lines.next;
   const DictionaryLink *link = first;
   size_t same = 0;

   while (lines[same] != nullptr && link != &dictionary->lines &&
          strcmp(lines[same], static_cast<const DictionaryLine *>(link)->text) == 0) {
      same++;
      link = link->next;
   }
   if (lines[same] == nullptr) {
      return;
   }
   /* All of them, also after a partial match: which lines were a header once cannot be told. */
   for (; *lines != nullptr; lines++) {
      DictionaryInsertLine(first, Util_SafeStrdup(*lines));
   }
}
