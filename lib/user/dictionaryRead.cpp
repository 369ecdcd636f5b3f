#include "lib/user/dictionaryRead.h"

#include "lib/dict/dictll.h"
#include "lib/misc/codeset.h"
#include "lib/misc/escape.h"
#include "lib/misc/secret.h"
#include "lib/public/owned.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionaryEncoding.h"
#include "lib/user/dictionaryState.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <strings.h>

namespace {

constexpr int MAXIMUM_DUPLICATES = 100;

constexpr const char *READ_LINE = "DictionaryParseReadLine";

/* What the metavariable ".encoding" was called before there were metavariables. */
constexpr std::array OLDER_SPELLINGS = {"config.encoding", "preferences.encoding", "vmlist.encoding",
                                        "snapshot.encoding"};

/* What became of a line. */
enum class LineResult : uint8_t { TAKEN, DUPLICATE, FAILED };

/* A line as it was read; the parts are null unless it is a definition. */
struct ReadLine {
   SecretString text;
   SecretString name;
   SecretString value;
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

bool DictionaryIsAscii(const char *name)
{
   return Unicode_IsBufferValid(name, static_cast<ssize_t>(strlen(name)), ENCODING_US_ASCII);
}

/* A comment or an empty line, which is kept, or else the end of the reading. */
LineResult DictionaryTakeOtherLine(Dictionary *dictionary, ReadLine *line, MsgList *messages)
{
   const char *start = line->text.get() + strspn(line->text.get(), " \t");
   if (*start == '\0' || *start == '#') {
      DictionaryAddLine(dictionary, &dictionary->lines, line->text.release());
      return LineResult::TAKEN;
   }
   Log("%s: syntax error with line, \"%s\".\n", READ_LINE, DictionaryPrintable(line->text.get()).get());
   DictionaryReportSyntaxError(dictionary, messages);
   return LineResult::FAILED;
}

LineResult DictionaryTakeSetting(Dictionary *dictionary, ReadLine *line, MsgList *messages)
{
   if (DictionaryFind(dictionary, line->name.get()) != nullptr) {
      DictionaryReportDuplicate(dictionary, line->name.get(), messages);
      DictionaryAddLine(dictionary, &dictionary->lines, line->text.release());
      return LineResult::DUPLICATE;
   }
   if (!DictionaryIsAscii(line->name.get())) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.nameNotASCII") "File \"%s\" line %d: Variable \"%s\" is not "
                                                           "valid ASCII.\n",
                     dictionary->fileName, dictionary->lineNumber,
                     DictionaryPrintable(line->name.get()).get());
      return LineResult::FAILED;
   }
   if (dictionary->encoding != ENCODING_UNKNOWN &&
       !DictionaryDecodeValue(dictionary, line->name.get(), &line->value, messages)) {
      return LineResult::FAILED;
   }
   DictionaryEntry *entry = DictionaryAddEntry(dictionary, line->name.release(), line->value.release());
   entry->line = DictionaryAddLine(dictionary, &dictionary->lines, line->text.release());
   entry->line->entry = entry;
   return LineResult::TAKEN;
}

LineResult DictionaryTakeLine(Dictionary *dictionary, ReadLine *line, MsgList *messages)
{
   const char *name = line->name.get();

   if (name == nullptr) {
      return DictionaryTakeOtherLine(dictionary, line, messages);
   }
   if (DictionaryIsEncodingName(name)) {
      const bool set = DictionarySetEncodingByName(dictionary, line->value.get(), messages);
      return set ? LineResult::TAKEN : LineResult::FAILED;
   }
   if (name[0] == '.') {
      Log("%s: \"%s\" line %d: unrecognized metavariable \"%s\"\n", READ_LINE, dictionary->fileName,
          dictionary->lineNumber, DictionaryPrintable(name).get());
      return LineResult::TAKEN;
   }
   return DictionaryTakeSetting(dictionary, line, messages);
}

/* As DictLL_ReadLine. */
int DictionaryNextLine(FILE *stream, ReadLine *line)
{
   char *text;
   char *name;
   char *value;

   const int result = DictLL_ReadLine(stream, &text, &name, &value);
   line->text.reset(text);
   line->name.reset(name);
   line->value.reset(value);
   return result;
}

/* Takes all lines of the stream. False: there was a duplicate, or the reading stopped. */
bool DictionaryTakeStream(Dictionary *dictionary, FILE *stream, MsgList *messages)
{
   ReadLine line;
   int duplicates = 0;
   int result;

   while ((result = DictionaryNextLine(stream, &line)) == 2) {
      dictionary->lineNumber++;
      switch (DictionaryTakeLine(dictionary, &line, messages)) {
      case LineResult::TAKEN:
         break;
      case LineResult::DUPLICATE:
         if (++duplicates > MAXIMUM_DUPLICATES) {
            Log("%s: \"%s\" line %d: too many duplicate entries in dictionary, quitting.\n",
                "DictionaryReadLines", dictionary->fileName, dictionary->lineNumber);
            return false;
         }
         break;
      case LineResult::FAILED:
         return false;
      }
   }
   if (result == 0) {
      const int error = errno;
      MsgList_Append(messages, MSGLIST_ID("dictionary.read.readError") "File \"%s\" line %d: %s.\n",
                     dictionary->fileName, dictionary->lineNumber + 1, strerror(error));
      return false;
   }
   return duplicates == 0;
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

/* Takes all lines of a text, without a limit on duplicates; *complete: it did not stop before the end. */
bool DictionaryTakeText(Dictionary *dictionary, const char *text, size_t size, MsgList *messages,
                        bool *complete)
{
   const char *const end = text + size;
   bool unique = true;
   char *line;
   char *name;
   char *value;

   *complete = true;
   while ((text = DictLL_UnmarshalLine(text, static_cast<size_t>(end - text), &line, &name, &value)) !=
          nullptr) {
      ReadLine read = {SecretString(line), SecretString(name), SecretString(value)};
      dictionary->lineNumber++;
      const LineResult result = DictionaryTakeLine(dictionary, &read, messages);
      unique = unique && result == LineResult::TAKEN;
      if (result == LineResult::FAILED) {
         *complete = false;
         break;
      }
   }
   dictionary->lineNumber = 0;
   return unique;
}

} // namespace

bool DictionaryIsEncodingName(const char *name)
{
   return strcmp(name, ".encoding") == 0 ||
          std::any_of(OLDER_SPELLINGS.begin(), OLDER_SPELLINGS.end(),
                      [name](const char *older) { return strcasecmp(name, older) == 0; });
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
   bool complete;

   if (!append) {
      Dictionary_Clear(dictionary);
      if (dictionary->hooks.cleared != nullptr) {
         dictionary->hooks.cleared(dictionary, dictionary->hooks.context);
      }
   }
   const SecretString stripped(Escape_StripCarriageReturns(text, strlen(text), &size));
   if (stripped == nullptr) {
      Panic("MEM_ALLOC %s:%d\n", "lib/user/dictionary", __LINE__);
   }
   const bool unique = DictionaryTakeText(dictionary, stripped.get(), size, messages, &complete);
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
   return unique;
}
