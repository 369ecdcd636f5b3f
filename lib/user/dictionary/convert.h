#ifndef TESSEL_LIB_USER_DICTIONARY_CONVERT_H
#define TESSEL_LIB_USER_DICTIONARY_CONVERT_H

#include <cstdint>

struct MsgList;

/* The bits of a text that is to be of one of the types that are not text; see DictionaryValue. True: it is of that
   type. False: it is not, a message for the named variable says so, and the bits are those of fallback. */
bool DictionaryConvertText(const char *text, uint32_t type, uint64_t fallback, const char *name,
                           MsgList *messages, uint64_t *bits);

/* The value of a type that is not text, in a file's words, as a new string; null for a type that does not exist. */
char *DictionaryFormatBits(uint32_t type, uint64_t bits);

#endif
