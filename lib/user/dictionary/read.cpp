#include "lib/user/dictionary/read.h"

#include "lib/dict/dictll.h"
#include "lib/misc/escape.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/encoding.h"
#include "lib/user/dictionary/state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char *MODULE = "lib/user/dictionary";

constexpr int MAXIMUM_DUPLICATES = 100;
constexpr uint64_t HIGH_BITS = 0x8080808080808080;

constexpr const char *READ_LINE = "DictionaryParseReadLine";

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

/* What the metavariable ".encoding" was called before there were metavariables. */
constexpr std::array<std::string_view, 4> OLDER_SPELLINGS = {"config.encoding", "preferences.encoding",
                                                             "vmlist.encoding", "snapshot.encoding"};

/* A text on its way into a dictionary. */
struct DictionaryReader {
   Dictionary *dictionary;
   MsgList *messages;
   int maximumDuplicates;
   int duplicates;
};

bool DictionaryIsAscii(std::string_view text)
{
   uint64_t all = 0;
   uint64_t word = 0;
   for (; text.size() >= sizeof word; text.remove_prefix(sizeof word)) {
      memcpy(&word, text.data(), sizeof word);
      all |= word;
   }
   word = 0;
   text.copy(reinterpret_cast<char *>(&word), text.size());
   return ((all | word) & HIGH_BITS) == 0;
}

/* Bytes from a file, made fit for the log. */
SecretString DictionaryPrintable(std::string_view text)
{
   return SecretString(
       UnicodeEscapeBuffer(text.data(), static_cast<ssize_t>(text.size()), ENCODING_US_ASCII));
}

/* What takes a part of the text gives false where the reading ends. A comment or an empty line is kept. */
bool DictionaryTakeOtherLine(const DictionaryReader &reader, std::string_view text)
{
   const size_t start = text.find_first_not_of(" \t");
   if (start == std::string_view::npos || text[start] == '#') {
      DictionaryAddReadLine(reader.dictionary, text, nullptr);
      return true;
   }
   Log("%s: syntax error with line, \"%s\".\n", READ_LINE, DictionaryPrintable(text).get());
   DICTIONARY_REPORT(reader.dictionary, reader.messages, "dictionary.read.syntaxError", "Syntax error.\n");
   return false;
}

/* Keeps the line as it is: the first definition holds. */
bool DictionaryTakeDuplicate(DictionaryReader *reader, std::string_view text, std::string_view name)
{
   Dictionary *const dictionary = reader->dictionary;
   const SecretString shown(Util_SafeStrndup(name.data(), name.size()));

   DICTIONARY_REPORT(dictionary, reader->messages, "dictionary.alreadyDefined",
                     "Variable \"%s\" is already defined.\n", shown.get());
   DictionaryAddReadLine(dictionary, text, nullptr);
   if (++reader->duplicates <= reader->maximumDuplicates) {
      return true;
   }
   Log("%s: \"%s\" line %d: too many duplicate entries in dictionary, quitting.\n", "DictionaryReadLines",
       dictionary->fileName, dictionary->lineNumber);
   return false;
}

/* Whether name and value of a new entry are as they should be, the value then in UTF-8 if the encoding is known. */
bool DictionaryCheckEntry(const DictionaryReader &reader, DictionaryEntry *entry)
{
   Dictionary *const dictionary = reader.dictionary;

   if (!DictionaryIsAscii(entry->Name())) {
      MsgList_Append(reader.messages,
                     MSGLIST_ID("dictionary.nameNotASCII") "File \"%s\" line %d: Variable \"%s\" is not "
                                                           "valid ASCII.\n",
                     dictionary->fileName, dictionary->lineNumber, DictionaryPrintable(entry->Name()).get());
      return false;
   }
   return dictionary->encoding == ENCODING_UNKNOWN ||
          DictionaryDecodeValue(dictionary, entry, reader.messages);
}

bool DictionaryTakeSetting(DictionaryReader *reader, std::string_view text, const DictLLParts &parts)
{
   Dictionary *const dictionary = reader->dictionary;
   DictionaryEntry *const entry = DictionaryAddEntry(dictionary, parts.name);

   if (entry == nullptr) {
      return DictionaryTakeDuplicate(reader, text, parts.name);
   }
   const bool isEscaped = DictLL_IsEscaped(parts.value);
   if (isEscaped) {
      DictionarySetText(dictionary, entry, SecretString(DictLL_Unescape(parts.value)).get());
   } else {
      DictionarySetText(dictionary, entry, parts.value);
   }
   /* In the common case there is nothing to convert, and nothing that could be wrong. */
   const bool isPlain = dictionary->encoding == ENCODING_UTF8 && !isEscaped && DictionaryIsAscii(text);
   if (!isPlain && !DictionaryCheckEntry(*reader, entry)) {
      DictionaryRemoveEntry(dictionary, entry);
      return false;
   }
   DictionaryAddReadLine(dictionary, text, entry);
   return true;
}

bool DictionaryTakeMetavariable(const DictionaryReader &reader, const DictLLParts &parts)
{
   if (!DictionaryIsEncodingName(parts.name)) {
      Log("%s: \"%s\" line %d: unrecognized metavariable \"%s\"\n", READ_LINE, reader.dictionary->fileName,
          reader.dictionary->lineNumber, DictionaryPrintable(parts.name).get());
      return true;
   }
   const SecretString value(DictLL_Unescape(parts.value));
   return DictionarySetEncodingByName(reader.dictionary, value.get(), reader.messages);
}

bool DictionaryTakeLine(DictionaryReader *reader, std::string_view text)
{
   DictLLParts parts;

   reader->dictionary->lineNumber++;
   if (!DictLL_ParseLine(text, &parts)) {
      return DictionaryTakeOtherLine(*reader, text);
   }
   if (parts.name.front() == '.' || DictionaryIsEncodingName(parts.name)) {
      return DictionaryTakeMetavariable(*reader, parts);
   }
   return DictionaryTakeSetting(reader, text, parts);
}

/* Whether all lines of the text were taken. */
bool DictionaryTakeText(DictionaryReader *reader, std::string_view text)
{
   while (!text.empty()) {
      const std::string_view line = text.substr(0, text.find('\n'));
      if (!DictionaryTakeLine(reader, line)) {
         return false;
      }
      text.remove_prefix(std::min(line.size() + 1, text.size()));
   }
   return true;
}

/* The same with a stream, of which no more than a line is in memory. */
bool DictionaryTakeStream(DictionaryReader *reader, FILE *stream)
{
   SecretBuffer line;
   int result;

   while ((result = DictLL_ReadText(stream, line.get())) == 2) {
      if (!DictionaryTakeLine(reader, {line.get()->data, line.get()->size})) {
         return false;
      }
   }
   if (result == 0) {
      MsgList_Append(reader->messages, MSGLIST_ID("dictionary.read.readError") "File \"%s\" line %d: %s.\n",
                     reader->dictionary->fileName, reader->dictionary->lineNumber + 1, strerror(errno));
   }
   return result != 0;
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

/* Reads a file by whatever takes its lines. */
template <typename Take>
bool DictionaryReadFile(Dictionary *dictionary, const char *fileName, bool marked, EncodingId defaultEncoding,
                        MsgList *messages, Take take)
{
   DictionaryReader reader = {dictionary, messages, MAXIMUM_DUPLICATES, 0};

   dictionary->fileName = fileName;
   dictionary->lineNumber = 0;
   const bool taken = take(&reader) && reader.duplicates == 0;
   dictionary->lineNumber = 0;
   const bool settled = taken && (dictionary->encoding != ENCODING_UNKNOWN ||
                                  DictionarySettleDefault(dictionary, marked, defaultEncoding, messages));
   dictionary->fileName = nullptr;
   return settled;
}

} // namespace

bool DictionaryIsEncodingName(std::string_view name)
{
   return name == ".encoding" ||
          std::any_of(OLDER_SPELLINGS.begin(), OLDER_SPELLINGS.end(), [name](std::string_view older) {
             return name.size() == older.size() && strncasecmp(name.data(), older.data(), name.size()) == 0;
          });
}

bool Dictionary_IsSettingName(std::string_view name)
{
   return !name.empty() && name.front() != '.' && DictionaryIsAscii(name) &&
          name.find_first_of(std::string_view("\0\t\n #=", 6)) == std::string_view::npos &&
          !DictionaryIsEncodingName(name);
}

bool DictionaryReadStream(Dictionary *dictionary, FILE *stream, const char *fileName,
                          EncodingId defaultEncoding, MsgList *messages)
{
   const bool marked = DictLL_ReadUTF8BOM(stream);

   return DictionaryReadFile(
       dictionary, fileName, marked, defaultEncoding, messages,
       [stream](DictionaryReader *reader) { return DictionaryTakeStream(reader, stream); });
}

bool Dictionary_LoadFromContent(Dictionary *dictionary, std::string_view content, const char *fileName,
                                MsgList *messages)
{
   Dictionary_Clear(dictionary);
   return DictionaryReadContent(dictionary, content, fileName, ENCODING_DEFAULT, messages);
}

bool DictionaryReadContent(Dictionary *dictionary, std::string_view content, const char *fileName,
                           EncodingId defaultEncoding, MsgList *messages)
{
   const bool marked = content.starts_with(BYTE_ORDER_MARK);

   content.remove_prefix(marked ? BYTE_ORDER_MARK.size() : 0);
   return DictionaryReadFile(
       dictionary, fileName, marked, defaultEncoding, messages,
       [content](DictionaryReader *reader) { return DictionaryTakeText(reader, content); });
}

bool Dictionary_Unmarshal(Dictionary *dictionary, const char *text, bool append, EncodingId defaultEncoding,
                          MsgList *messages)
{
   DictionaryReader reader = {dictionary, messages, INT_MAX, 0};
   size_t size = 0;

   if (!append) {
      Dictionary_Clear(dictionary);
      if (dictionary->hooks.cleared != nullptr) {
         dictionary->hooks.cleared(dictionary, dictionary->hooks.context);
      }
   }
   const SecretString stripped(Escape_StripCarriageReturns(text, strlen(text), &size));
   if (stripped == nullptr) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
   const bool complete = DictionaryTakeText(&reader, {stripped.get(), size});
   dictionary->lineNumber = 0;
   if (!complete) {
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
   return reader.duplicates == 0;
}
