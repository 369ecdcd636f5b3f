#include "lib/user/dictionary/write.h"

#include "base/owned.h"
#include "lib/dict/dictll.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/memory/secret.h"
#include "lib/string/str.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/encoding.h"
#include "lib/user/dictionary/state.h"

#include <cstring>

namespace {

constexpr const char *MODULE = "lib/user/dictionary";
constexpr const char *WRITE_TO_BUFFER = "Dictionary_WriteToBuffer";

/* For what a usual change adds. */
constexpr size_t SIZE_MARGIN = 4096;

constexpr const char *KEY_SAFE = "encryption.keySafe";
constexpr const char *INTEGRITY_PROTECTED = "encryption.integrityProtected";
constexpr const char *INTEGRITY_HASH = "encryption.integrityHash";

struct DictionaryWriter {
   Dictionary *dictionary;
   EncodingId encoding;
   MsgList *messages;
   DynBuf *text;
   DynBuf *protectedSection;
   bool failed; /* For a reason that another encoding does not mend. */
};

void DictionaryMarshal(DynBuf *output, const char *name, const char *value)
{
   if (!DictLL_MarshalLine(output, name, value)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
}

void DictionaryAppendBytes(DynBuf *output, const char *bytes, size_t size)
{
   Secret_SafeAppend(output, bytes, size, MODULE, __LINE__);
}

bool DictionaryIsSet(const Dictionary *dictionary, const char *name)
{
   const SecretString text(Dictionary_GetText(dictionary, name));
   bool invalid;
   return Dictionary_ParseBool(text.get(), &invalid);
}

void DictionaryAppendLine(DynBuf *output, std::string_view line)
{
   DictionaryAppendBytes(output, line.data(), line.size());
   DictionaryAppendBytes(output, "\n", 1);
}

/* Appends a new line for an entry. False, reported: a file cannot hold the name, or the encoding not the value. */
bool DictionaryMarshalEntry(DictionaryWriter *writer, const DictionaryEntry *entry, DynBuf *output)
{
   SecretString value(DictionaryFormatValue(entry));

   if (!Dictionary_IsSettingName(entry->Name())) {
      MsgList_Append(writer->messages,
                     MSGLIST_ID("dictionary.badName") "A file cannot hold a variable of the name \"%s\".\n",
                     entry->Name());
      writer->failed = true;
      return false;
   }
   if (DictionaryIsText(entry->type) && *value != '\0') {
      SecretString encoded = DictionaryEncodeValue(value.get(), writer->encoding);
      if (encoded == nullptr) {
         DictionaryReportBadOutput(value.get(), entry->Name(), writer->encoding, writer->messages);
         return false;
      }
      value = std::move(encoded);
   }
   DictionaryMarshal(output, entry->Name(), value.get());
   return true;
}

bool DictionaryWriteEntry(DictionaryWriter *writer, DictionaryEntry *entry, DynBuf *output)
{
   const size_t start = output->size;

   entry->written = true;
   if (entry->line != nullptr && !entry->modified) {
      DictionaryAppendLine(output, entry->line->Text());
      return true;
   }
   if (!DictionaryMarshalEntry(writer, entry, output)) {
      return false;
   }
   if (entry->line != nullptr) {
      DictionaryReplaceLine(writer->dictionary, entry, {output->data + start, output->size - start - 1});
   }
   return true;
}

/* Copies the leading lines that begin with "#" and gives the first line behind them. */
DictionaryLink *DictionaryWriteHead(const DictionaryWriter &writer)
{
   DictionaryLink *const head = &writer.dictionary->lines;
   DictionaryLink *link = head->next;
   for (; link != head && static_cast<DictionaryLine *>(link)->Text().starts_with('#'); link = link->next) {
      DictionaryAppendLine(writer.text, static_cast<DictionaryLine *>(link)->Text());
   }
   return link;
}

bool DictionaryWriteLines(DictionaryWriter *writer, DictionaryLink *link)
{
   for (DictionaryLink *next; link != &writer->dictionary->lines; link = next) {
      const auto *line = static_cast<DictionaryLine *>(link);
      next = link->next;
      if (line->entry == nullptr) {
         DictionaryAppendLine(writer->text, line->Text());
      } else if (!line->entry->written && !line->entry->isProtected &&
                 !DictionaryWriteEntry(writer, line->entry, writer->text)) {
         return false;
      }
   }
   return true;
}

bool DictionaryWriteRest(DictionaryWriter *writer)
{
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(writer->dictionary->entries)) {
      DynBuf *const output = entry->isProtected ? writer->protectedSection : writer->text;
      if (!entry->written && !DictionaryWriteEntry(writer, entry, output)) {
         return false;
      }
   }
   return true;
}

bool DictionaryWriteProtected(const DictionaryWriter &writer, bool protect)
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

bool DictionaryWriteIntegrity(const DictionaryWriter &writer)
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

/* False: an entry cannot be written. */
bool DictionaryWriteEntries(DictionaryWriter *writer)
{
   DictionaryLink *const behindHead = DictionaryWriteHead(*writer);
   DictionaryMarshal(writer->text, ".encoding", Unicode_EncodingEnumToName(writer->encoding));
   DictionaryClearMarks(writer->dictionary);
   return DictionaryWriteLines(writer, behindHead) && DictionaryWriteRest(writer);
}

/* Every line with text must be written anew in UTF-8. False: a value is not UTF-8, and nothing has changed. */
bool DictionaryUpgrade(Dictionary *dictionary)
{
   for (const DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (DictionaryIsText(entry->type) && !CodeSet_IsValidUtf8(entry->text)) {
         return false;
      }
   }
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      entry->modified = entry->modified || DictionaryIsText(entry->type);
   }
   dictionary->encoding = ENCODING_UTF8;
   return true;
}

/* For all that is there; what is outgrown has to be zeroed, which takes its time. */
void DictionaryReserveLines(const Dictionary *dictionary, DynBuf *text)
{
   size_t size = SIZE_MARGIN;
   for (const DictionaryLine *line : DictionaryRing<DictionaryLine>(dictionary->lines)) {
      size += line->length + 1;
   }
   Secret_SafeReserve(text, size, MODULE, __LINE__);
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
   DictionaryReserveLines(dictionary, text);
   while (true) {
      const EncodingId encoding = dictionary->encoding != ENCODING_UNKNOWN
                                      ? dictionary->encoding
                                      : Unicode_ResolveEncoding(ENCODING_DEFAULT);
      SecretBuffer protectedSection;
      DictionaryWriter writer = {dictionary, encoding, messages, text, protectedSection.get(), false};
      if (DictionaryWriteEntries(&writer)) {
         return DictionaryWriteProtected(writer, protect) && DictionaryWriteIntegrity(writer);
      }
      if (writer.failed || encoding == ENCODING_UTF8) {
         return false;
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
   if (first != &dictionary->lines && static_cast<DictionaryLine *>(first)->Text().starts_with("#!")) {
      return false;
   }
   const Owned<char> line(Str_SafeAsprintf(nullptr, "#!%s", interpreter));
   DictionaryAddLine(dictionary, first, line.get());
   return true;
}

void Dictionary_AddHeaderLines(Dictionary *dictionary, const char *const *lines)
{
   DictionaryLink *const first = dictionary->lines.next;
   const DictionaryLink *link = first;
   size_t same = 0;

   while (lines[same] != nullptr && link != &dictionary->lines &&
          lines[same] == static_cast<const DictionaryLine *>(link)->Text()) {
      same++;
      link = link->next;
   }
   if (lines[same] == nullptr) {
      return;
   }
   /* All of them, also after a partial match: which lines were a header once cannot be told. */
   for (; *lines != nullptr; lines++) {
      DictionaryAddLine(dictionary, first, *lines);
   }
}
