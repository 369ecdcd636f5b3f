#include "lib/user/dictionary/encoding.h"

#include "base/owned.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/state.h"

#include <cstring>

namespace {

/* Invalid bytes have no place in a message. */
void DictionaryReportBadInput(const Dictionary *dictionary, const DictionaryEntry *entry, EncodingId encoding,
                              MsgList *messages)
{
   const SecretString shown(
       UnicodeEscapeBuffer(entry->text, static_cast<ssize_t>(strlen(entry->text)), ENCODING_US_ASCII));
   DICTIONARY_REPORT(dictionary, messages, "dictionary.badEncodedInput",
                     "Value \"%s\" for variable \"%s\" is not valid in encoding \"%s\".\n", shown.get(),
                     entry->Name(), Unicode_EncodingEnumToName(encoding));
}

void DictionaryReportUnknownEncoding(const Dictionary *dictionary, const char *name, MsgList *messages)
{
   if (dictionary->fileName == nullptr) {
      MsgList_Append(
          messages,
          MSGLIST_ID("dictionary.unknownEncodingNoFile") "Character encoding \"%s\" is not supported.\n",
          name);
   } else if (dictionary->lineNumber < 1) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.unknownEncodingNoLine") "File \"%s\": Character encoding "
                                                                    "\"%s\" is not supported.\n",
                     dictionary->fileName, name);
   } else {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.unknownEncoding") "File \"%s\" (line %d) specifies a character "
                                                              "encoding (%s) that is not supported.\n",
                     dictionary->fileName, dictionary->lineNumber, name);
   }
}

void DictionaryReportHasEncoding(const Dictionary *dictionary, MsgList *messages)
{
   const char *name = Unicode_EncodingEnumToName(dictionary->encoding);
   if (dictionary->fileName == nullptr) {
      MsgList_Append(
          messages,
          MSGLIST_ID("dictionary.hasEncodingNoFile") "The dictionary already has encoding \"%s\".\n", name);
   } else if (dictionary->lineNumber < 1) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.hasEncodingNoLine") "File \"%s\" already has encoding \"%s\".\n",
                     dictionary->fileName, name);
   } else {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.hasEncoding") "File \"%s\" (line %d) already has encoding "
                                                          "\"%s\".\n",
                     dictionary->fileName, dictionary->lineNumber, name);
   }
}

/* Valid bytes of these are their own UTF-8. */
bool DictionaryIsUtf8Subset(EncodingId encoding)
{
   return encoding == ENCODING_UTF8 || encoding == ENCODING_US_ASCII;
}

/* Whether the conversions can be asked about an encoding at all: one that the engine cannot open would end the
   process. */
bool DictionaryIsUsable(EncodingId encoding)
{
   return Unicode_IsEncodingValid(encoding) &&
          (DictionaryIsUtf8Subset(encoding) ||
           CodeSet_IsEncodingSupported(Unicode_EncodingEnumToName(encoding)));
}

/* In UTF-8, as a new string; null if the text is not valid in the encoding, which the conversion finds out by itself:
   a check of its own would leave a copy behind. The length is given, since the units of a wide encoding would
   be looked for past the end of a string of bytes. */
SecretString DictionaryDecode(const char *text, EncodingId encoding)
{
   return SecretString(UnicodeAllocInternal(text, static_cast<ssize_t>(strlen(text)), encoding, true));
}

bool DictionaryIsValid(const char *text, EncodingId encoding)
{
   if (DictionaryIsUtf8Subset(encoding)) {
      return Unicode_IsBufferValid(text, static_cast<ssize_t>(strlen(text)), encoding);
   }
   return DictionaryDecode(text, encoding) != nullptr;
}

/* Whether every value is valid; the first that is not is reported. */
bool DictionaryCheckValues(const Dictionary *dictionary, EncodingId encoding, MsgList *messages)
{
   for (const DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (DictionaryIsText(entry->type) && !DictionaryIsValid(entry->text, encoding)) {
         DictionaryReportBadInput(dictionary, entry, encoding, messages);
         return false;
      }
   }
   return true;
}

void DictionaryConvertValues(Dictionary *dictionary, EncodingId encoding)
{
   for (DictionaryEntry *entry : DictionaryRing<DictionaryEntry>(dictionary->entries)) {
      if (DictionaryIsText(entry->type)) {
         DictionarySetText(dictionary, entry, DictionaryDecode(entry->text, encoding).get());
      }
   }
}

bool DictionarySettleEncoding(Dictionary *dictionary, EncodingId encoding, const char *name,
                              MsgList *messages)
{
   if (!DictionaryIsUsable(encoding)) {
      DictionaryReportUnknownEncoding(dictionary, name, messages);
      return false;
   }
   if (dictionary->encoding != ENCODING_UNKNOWN) {
      if (dictionary->encoding != encoding) {
         DictionaryReportHasEncoding(dictionary, messages);
         return false;
      }
      return true;
   }
   if (!DictionaryCheckValues(dictionary, encoding, messages)) {
      return false;
   }
   if (!DictionaryIsUtf8Subset(encoding)) {
      DictionaryConvertValues(dictionary, encoding);
   }
   dictionary->encoding = encoding;
   return true;
}

} // namespace

bool DictionarySetEncodingByName(Dictionary *dictionary, const char *name, MsgList *messages)
{
   return DictionarySettleEncoding(dictionary, UnicodeIANALookup(name), name, messages);
}

bool DictionaryDecodeValue(Dictionary *dictionary, DictionaryEntry *entry, MsgList *messages)
{
   const EncodingId encoding = dictionary->encoding;

   if (!DictionaryIsValid(entry->text, encoding)) {
      DictionaryReportBadInput(dictionary, entry, encoding, messages);
      return false;
   }
   if (!DictionaryIsUtf8Subset(encoding)) {
      DictionarySetText(dictionary, entry, DictionaryDecode(entry->text, encoding).get());
   }
   return true;
}

SecretString DictionaryEncodeValue(const char *value, EncodingId encoding)
{
   size_t length = 0;

   if (!CodeSet_IsValidUtf8(value)) {
      return nullptr;
   }
   SecretString encoded(static_cast<char *>(Unicode_GetAllocBytesWithLength(value, encoding, -1, &length)));
   /* A file's values are strings of bytes: the NULs of a wide encoding have no place there. */
   if (encoded != nullptr && strlen(encoded.get()) != length) {
      Secret_Zero(encoded.get(), length);
      return nullptr;
   }
   return encoded;
}

void DictionaryReportBadOutput(const char *value, const char *name, EncodingId encoding, MsgList *messages)
{
   MsgList_Append(
       messages,
       MSGLIST_ID("dictionary.badEncodedOutput") "Value \"%s\" for variable \"%s\" is not valid in "
                                                 "the \"%s\" encoding.\n",
       value, name, Unicode_EncodingEnumToName(encoding));
}

EncodingId Dictionary_GetEncoding(const Dictionary *dictionary)
{
   return dictionary->encoding;
}

bool Dictionary_SetEncoding(Dictionary *dictionary, EncodingId encoding, MsgList *messages)
{
   const EncodingId resolved = Unicode_ResolveEncoding(encoding);
   const char *name = Unicode_IsEncodingValid(resolved) ? Unicode_EncodingEnumToName(resolved) : "unknown";
   return DictionarySettleEncoding(dictionary, resolved, name, messages);
}
