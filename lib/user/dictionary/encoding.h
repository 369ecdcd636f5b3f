#ifndef TESSEL_LIB_USER_DICTIONARY_ENCODING_H
#define TESSEL_LIB_USER_DICTIONARY_ENCODING_H

#include "lib/misc/memory/secret.h"
#include "lib/unicode/unicodeSimpleTypes.h"

struct Dictionary;
struct DictionaryEntry;
struct MsgList;

/* Settles the encoding by the name that a file gives; see Dictionary_SetEncoding. */
bool DictionarySetEncodingByName(Dictionary *dictionary, const char *name, MsgList *messages);

/* Turns the value of an entry, as the file holds it in the dictionary's known encoding, into UTF-8. False, with a message
   and the value as it was, if it is not valid there. */
bool DictionaryDecodeValue(Dictionary *dictionary, DictionaryEntry *entry, MsgList *messages);

/* A value in an encoding, as a new string; null if the encoding cannot hold it. */
SecretString DictionaryEncodeValue(const char *value, EncodingId encoding);

/* Says so. */
void DictionaryReportBadOutput(const char *value, const char *name, EncodingId encoding, MsgList *messages);

#endif
