#ifndef TESSEL_LIB_USER_DICTIONARY_READ_H
#define TESSEL_LIB_USER_DICTIONARY_READ_H

#include "lib/unicode/unicodeSimpleTypes.h"

#include <cstdio>
#include <string_view>

struct Dictionary;
struct MsgList;

/* Reads a stream, at its start, into the dictionary, line by line to its end or the first line that will not do;
   fileName is what messages call it. */
bool DictionaryReadStream(Dictionary *dictionary, FILE *stream, const char *fileName,
                          EncodingId defaultEncoding, MsgList *messages);

/* The same from the content of a file. */
bool DictionaryReadContent(Dictionary *dictionary, std::string_view content, const char *fileName,
                           EncodingId defaultEncoding, MsgList *messages);

/* Whether the name is ".encoding" or one of its older spellings. */
bool DictionaryIsEncodingName(std::string_view name);

#endif
