#include "lib/user/dictionary/read.h"

#include "base/owned.h"
#include "lib/dict/dictll.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/escape.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/encoding.h"
#include "lib/user/dictionary/state.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>

namespace {

constexpr const char *MODULE = "lib/user/dictionary";

constexpr int MAXIMUM_DUPLICATES = 100;
constexpr size_t BLOCK_SIZE = size_t{64} * 1024;
constexpr uint64_t HIGH_BITS = 0x8080808080808080;
constexpr size_t LARGEST_EXPECTATION = size_t{16} << 20;

constexpr const char *READ_LINE = "DictionaryParseReadLine";

/* What the metavariable ".encoding" was called before there were metavariables. */
constexpr std::array<std::string_view, 4> OLDER_SPELLINGS = {"config.encoding", "preferences.encoding",
                                                             "vmlist.encoding", "snapshot.encoding"};

/* What became of a line. */
enum class LineResult : uint8_t { TAKEN, DUPLICATE, FAILED };

/* A line in the text that is read, ended by a NUL where its line feed was. */
struct ReadLine {
   char *text;
   size_t length;
   bool isDefinition;
   DictLLParts parts; /* If it is one. */
};

void DictionaryReportSyntaxError(const Dictionary *dictionary, MsgList *messages)
{
   if (dictionary->fileName == nullptr) {
      MsgList_Append(messages, MSGLIST_ID("dictionary.read.syntaxErrorNoFile") "Syntax error.\n");
   } else if (dictionary->lineNumber < 1) {
      MsgList_Append(messages, MSGLIST_ID("dictionary.read.syntaxErrorNoLine") "File \"%s\": Syntax error.\n",
                     dictionary->fileName);
   } else {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.read.syntaxError") "File \"%s\" line %d: Syntax error.\n",
                     dictionary->fileName, dictionary->lineNumber);
   }
}

void DictionaryReportDuplicate(const Dictionary *dictionary, const char *name, MsgList *messages)
{
   if (dictionary->fileName == nullptr) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.alreadyDefinedNoFile") "Variable \"%s\" is already defined.\n",
                     name);
   } else if (dictionary->lineNumber < 1) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.alreadyDefinedNoLine") "File \"%s\": Variable \"%s\" is already "
                                                                   "defined.\n",
                     dictionary->fileName, name);
   } else {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.alreadyDefined") "File \"%s\" line %d: Variable \"%s\" is "
                                                             "already defined.\n",
                     dictionary->fileName, dictionary->lineNumber, name);
   }
}

/* Bytes from a file, made fit for the log. */
SecretString DictionaryPrintable(const char *text)
{
   return SecretString(UnicodeEscapeBuffer(text, static_cast<ssize_t>(strlen(text)), ENCODING_US_ASCII));
}

/* A part of a line as a string of its own. */
SecretString DictionaryString(std::string_view part)
{
   return SecretString(Util_SafeStrndup(part.data(), part.size()));
}

/* The first value of an entry in the arena, which it needs a block of its own for only if it is escaped. */
void DictionarySetValue(Dictionary *dictionary, DictionaryEntry *entry, std::string_view value)
{
   if (DictLL_IsEscaped(value)) {
      DictionaryReplaceText(entry, DictLL_Unescape(value));
   } else {
      entry->value.text = SecretArena_CopyString(&dictionary->arena, value.data(), value.size());
   }
}

void DictionaryReserve(DynBuf *text, size_t size)
{
   if (!Secret_Reserve(text, size)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
}

bool DictionaryIsAscii(std::string_view bytes)
{
   uint64_t all = 0;
   uint64_t word = 0;
   for (; bytes.size() >= sizeof word; bytes.remove_prefix(sizeof word)) {
      memcpy(&word, bytes.data(), sizeof word);
      all |= word;
   }
   word = 0;
   memcpy(&word, bytes.data(), bytes.size());
   return ((all | word) & HIGH_BITS) == 0;
}

/* A comment or an empty line, which is kept, or else the end of the reading. */
LineResult DictionaryTakeOtherLine(Dictionary *dictionary, const ReadLine &line, MsgList *messages)
{
   const char *start = line.text + strspn(line.text, " \t");
   if (*start == '\0' || *start == '#') {
      DictionaryAddReadLine(dictionary, line.text);
      return LineResult::TAKEN;
   }
   Log("%s: syntax error with line, \"%s\".\n", READ_LINE, DictionaryPrintable(line.text).get());
   DictionaryReportSyntaxError(dictionary, messages);
   return LineResult::FAILED;
}

bool DictionaryCheckName(const Dictionary *dictionary, const char *name, MsgList *messages)
{
   if (DictionaryIsAscii(name)) {
      return true;
   }
   MsgList_Append(messages,
                  MSGLIST_ID("dictionary.nameNotASCII") "File \"%s\" line %d: Variable \"%s\" is not "
                                                        "valid ASCII.\n",
                  dictionary->fileName, dictionary->lineNumber, DictionaryPrintable(name).get());
   return false;
}

/* Whether name and value of a new entry are as they should be, the value then in UTF-8. */
bool DictionaryCheckEntry(const Dictionary *dictionary, DictionaryEntry *entry, bool isAscii,
                          MsgList *messages)
{
   /* The common case: nothing to convert, and nothing that could be wrong. */
   if (isAscii && !entry->ownsText && dictionary->encoding == ENCODING_UTF8) {
      return true;
   }
   return DictionaryCheckName(dictionary, entry->name, messages) &&
          (dictionary->encoding == ENCODING_UNKNOWN || DictionaryDecodeValue(dictionary, entry, messages));
}

LineResult DictionaryTakeSetting(Dictionary *dictionary, const ReadLine &line, bool isAscii,
                                 MsgList *messages)
{
   DictionaryEntry *entry = DictionaryAddEntry(dictionary, line.parts.name);
   DictionaryLine *kept;

   if (entry == nullptr) {
      DictionaryReportDuplicate(dictionary, DictionaryString(line.parts.name).get(), messages);
      DictionaryAddReadLine(dictionary, line.text);
      return LineResult::DUPLICATE;
   }
   DictionarySetValue(dictionary, entry, line.parts.value);
   if (!DictionaryCheckEntry(dictionary, entry, isAscii, messages)) {
      DictionaryDropEntry(dictionary, entry);
      return LineResult::FAILED;
   }
   kept = DictionaryAddReadLine(dictionary, line.text);
   kept->entry = entry;
   entry->line = kept;
   return LineResult::TAKEN;
}

LineResult DictionaryTakeMetavariable(Dictionary *dictionary, const ReadLine &line, MsgList *messages)
{
   if (!DictionaryIsEncodingName(line.parts.name)) {
      Log("%s: \"%s\" line %d: unrecognized metavariable \"%s\"\n", READ_LINE, dictionary->fileName,
          dictionary->lineNumber, DictionaryPrintable(DictionaryString(line.parts.name).get()).get());
      return LineResult::TAKEN;
   }
   const SecretString value(DictLL_Unescape(line.parts.value));
   return DictionarySetEncodingByName(dictionary, value.get(), messages) ? LineResult::TAKEN
                                                                         : LineResult::FAILED;
}

/* isAscii: the whole text is. */
LineResult DictionaryTakeLine(Dictionary *dictionary, const ReadLine &line, bool isAscii, MsgList *messages)
{
   if (!line.isDefinition) {
      return DictionaryTakeOtherLine(dictionary, line, messages);
   }
   if (line.parts.name.front() == '.' || DictionaryIsEncodingName(line.parts.name)) {
      return DictionaryTakeMetavariable(dictionary, line, messages);
   }
   return DictionaryTakeSetting(dictionary, line, isAscii, messages);
}

/* Takes the first line off a text that has a writable byte behind its end. */
ReadLine DictionarySplitLine(char **text, size_t *size)
{
   auto *feed = static_cast<char *>(memchr(*text, '\n', *size));
   const size_t length = feed != nullptr ? static_cast<size_t>(feed - *text) : *size;
   ReadLine line = {.text = *text, .length = length, .isDefinition = false, .parts = {}};

   line.isDefinition = DictLL_ParseLine({line.text, length}, &line.parts);
   line.text[length] = '\0';
   const size_t taken = feed != nullptr ? length + 1 : length;
   *text += taken;
   *size -= taken;
   return line;
}

/* How the lines of a text were taken. */
struct TextResult {
   bool complete; /* To the end. */
   bool unique;   /* Without a duplicate. */
};

/* Takes all lines of a text in the arena, which become the dictionary's, up to the first error or the first duplicate
   too many. */
TextResult DictionaryTakeText(Dictionary *dictionary, char *text, size_t size, int maximumDuplicates,
                              MsgList *messages)
{
   const bool isAscii = DictionaryIsAscii({text, size});
   dictionary->fileSize += size;
   int duplicates = 0;

   while (size != 0) {
      const ReadLine line = DictionarySplitLine(&text, &size);
      dictionary->lineNumber++;
      const LineResult result = DictionaryTakeLine(dictionary, line, isAscii, messages);
      if (result == LineResult::DUPLICATE && ++duplicates > maximumDuplicates) {
         Log("%s: \"%s\" line %d: too many duplicate entries in dictionary, quitting.\n",
             "DictionaryReadLines", dictionary->fileName, dictionary->lineNumber);
         return {.complete = false, .unique = false};
      }
      if (result == LineResult::FAILED) {
         return {.complete = false, .unique = duplicates == 0};
      }
   }
   return {.complete = true, .unique = duplicates == 0};
}

/* How much of a stream to expect: its file's size, within reason, or else a block. */
size_t DictionaryExpectedSize(FILE *stream)
{
   struct stat attributes;
   if (fstat(fileno(stream), &attributes) == -1 || !S_ISREG(attributes.st_mode)) {
      return BLOCK_SIZE;
   }
   return std::clamp(static_cast<size_t>(attributes.st_size), BLOCK_SIZE, LARGEST_EXPECTATION);
}

/* Gathers the rest of a stream. 0, or the error that ended it. */
int DictionaryReadStream(FILE *stream, DynBuf *text)
{
   /* More than the file has, so that its end is seen, and a NUL has its place. */
   size_t room = DictionaryExpectedSize(stream) + 2;

   while (true) {
      DictionaryReserve(text, room);
      room = text->allocated - text->size;
      const size_t count = fread(text->data + text->size, 1, room, stream);
      const int error = ferror(stream) != 0 ? errno : 0;
      text->size += count;
      if (error != 0 && error != EINTR) {
         return error;
      }
      if (error == 0 && count < room) {
         return 0;
      }
      clearerr(stream);
   }
}

/* Of a file that breaks off with an error, the lines that came before, without the broken one. */
size_t DictionaryWholeLines(const DynBuf *text)
{
   const size_t feed = std::string_view(text->data, text->size).rfind('\n');
   return feed == std::string_view::npos ? 0 : feed + 1;
}

/* Takes all lines of the stream. False: there was a duplicate, or the reading stopped. */
bool DictionaryTakeStream(Dictionary *dictionary, FILE *stream, MsgList *messages)
{
   SecretBuffer text;

   const int error = DictionaryReadStream(stream, text.get());
   const size_t size = error == 0 ? text.get()->size : DictionaryWholeLines(text.get());
   DictionaryReserve(text.get(), 1);
   const size_t allocated = text.get()->allocated;
   auto *lines = static_cast<char *>(DynBuf_Detach(text.get()));
   SecretArena_Adopt(&dictionary->arena, lines, allocated);
   const TextResult result = DictionaryTakeText(dictionary, lines, size, MAXIMUM_DUPLICATES, messages);
   if (result.complete && error != 0) {
      MsgList_Append(messages, MSGLIST_ID("dictionary.read.readError") "File \"%s\" line %d: %s.\n",
                     dictionary->fileName, dictionary->lineNumber + 1, strerror(error));
      return false;
   }
   return result.complete && result.unique;
}

/* A file that said nothing of its encoding. The mark alone is a guess, which the default may still correct. */
bool DictionarySettleDefault(Dictionary *dictionary, bool marked, EncodingId defaultEncoding,
                             MsgList *messages)
{
   const size_t before = MsgList_Count(messages);

   if (marked && Unicode_ResolveEncoding(defaultEncoding) != ENCODING_UTF8 &&
       Dictionary_SetEncoding(dictionary, ENCODING_UTF8, messages)) {
      return true;
   }
   MsgList_Rollback(messages, before);
   if (Dictionary_SetEncoding(dictionary, defaultEncoding, messages)) {
      return true;
   }
   MsgList_Append(messages,
                  MSGLIST_ID("dictionary.badDefaultEncoding") "An error occurred while decoding file \"%s\" "
                                                              "using the default character encoding.\n",
                  dictionary->fileName);
   return false;
}

} // namespace

bool DictionaryIsEncodingName(std::string_view name)
{
   return name == ".encoding" ||
          std::any_of(OLDER_SPELLINGS.begin(), OLDER_SPELLINGS.end(), [name](std::string_view older) {
             return name.size() == older.size() && strncasecmp(name.data(), older.data(), name.size()) == 0;
          });
}

bool DictionaryReadLines(Dictionary *dictionary, FILE *stream, const char *fileName,
                         EncodingId defaultEncoding, MsgList *messages)
{
   dictionary->fileName = fileName;
   dictionary->lineNumber = 0;
   const bool marked = DictLL_ReadUTF8BOM(stream);
   const bool taken = DictionaryTakeStream(dictionary, stream, messages);
   dictionary->lineNumber = 0;
   const bool settled = taken && (dictionary->encoding != ENCODING_UNKNOWN ||
                                  DictionarySettleDefault(dictionary, marked, defaultEncoding, messages));
   dictionary->fileName = nullptr;
   return settled;
}

bool Dictionary_Unmarshal(Dictionary *dictionary, const char *text, bool append, EncodingId defaultEncoding,
                          MsgList *messages)
{
   size_t size = 0;

   if (!append) {
      Dictionary_Clear(dictionary);
      if (dictionary->hooks.cleared != nullptr) {
         dictionary->hooks.cleared(dictionary, dictionary->hooks.context);
      }
   }
   char *const stripped = Escape_StripCarriageReturns(text, strlen(text), &size);
   if (stripped == nullptr) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
   SecretArena_Adopt(&dictionary->arena, stripped, size + 1);
   const TextResult result = DictionaryTakeText(dictionary, stripped, size, INT_MAX, messages);
   dictionary->lineNumber = 0;
   if (!result.complete) {
      return false;
   }
   if (dictionary->encoding == ENCODING_UNKNOWN &&
       !Dictionary_SetEncoding(dictionary, defaultEncoding, messages)) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.badDefaultEncodingNoFile") "Failed to decode the dictionary in "
                                                                       "the default character encoding.\n");
      return false;
   }
   if (DictionaryEntry *entry = DictionaryFind(dictionary, "encryption.unspecified.default")) {
      entry->isProtected = true;
   }
   return result.unique;
}
