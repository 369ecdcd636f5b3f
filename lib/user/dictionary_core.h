#ifndef TESSEL_LIB_USER_DICTIONARY_CORE_H
#define TESSEL_LIB_USER_DICTIONARY_CORE_H

#include "lib/public/program.h"

#include <cstddef>
#include <cstdint>

struct MsgList;

/* Named settings, in the order in which they came. A value that was read from a file is text until it is first asked
   for with a type; from then on it keeps that type.

   Names are ASCII without blanks, "#" and "=", as a file can hold them, compared without regard to case
   unless the dictionary was made otherwise. Where a name is given by a format, it is cut to 1,023 bytes. Text
   is UTF-8. Every string that the dictionary held is zeroed before it is released. What cannot be converted
   is told to the dictionary's message list and never fails a call. A dictionary belongs to one thread at a
   time. Exhausted memory ends the process. */
struct Dictionary;

constexpr uint32_t DICTIONARY_UNTYPED = 0; /* Text, as read from a file. */
constexpr uint32_t DICTIONARY_STRING = 1;
constexpr uint32_t DICTIONARY_BOOL = 2;
constexpr uint32_t DICTIONARY_INT32 = 3;
constexpr uint32_t DICTIONARY_DOUBLE = 4;
constexpr uint32_t DICTIONARY_TRISTATE = 5;
constexpr uint32_t DICTIONARY_INT64 = 6;

/* The flags of a setter. Without either protection bit the dictionary's default protection holds. */
constexpr uint32_t DICTIONARY_PLAIN = 0x1000;
constexpr uint32_t DICTIONARY_PROTECTED = 0x2000;
constexpr uint32_t DICTIONARY_NOT_PERSISTENT = 0x4000; /* Never written to a file, never dumped. */

constexpr int32_t DICTIONARY_TRISTATE_DEFAULT = -1;

/* An encryption layer's part in reading and writing; each routine may be null. */
struct DictionaryHooks {
   /* The dictionary was cleared to be filled from a buffer. */
   void (*cleared)(Dictionary *dictionary, void *context);

   /* The text to write in place of the protected section: a malloc'ed string of whole lines, which is zeroed and
      freed by the caller; null fails the writing. */
   char *(*protect)(Dictionary *dictionary, const char *section, void *context);

   /* The value of "encryption.integrityHash" for the size bytes that stand before that line, in the same way. */
   char *(*integrity)(Dictionary *dictionary, const char *text, size_t size, void *context);

   void *context;
};

/* A new, empty and unchanged dictionary of unknown encoding. The table of names begins with so many buckets, a power of
   two, 0 for the usual 512, and grows with what it holds. */
[[nodiscard]] Dictionary *Dictionary_Create();
[[nodiscard]] Dictionary *Dictionary_CreateWithSize(uint32_t bucketCount, bool caseSensitive);

/* Null is ignored. */
void Dictionary_Free(Dictionary *dictionary);

/* Removes every entry and line, and forgets the encoding; the dictionary counts as unchanged. Hooks, key and message
   list stay. */
void Dictionary_Clear(Dictionary *dictionary);

/* Where messages go from now on, those of routines that do not take a list; null: nowhere. The list stays the
   caller's and must outlive its use here. */
void Dictionary_SetMessageList(Dictionary *dictionary, MsgList *messages);

/* For an encryption layer. hooks are copied; null removes them. A key, which is only compared with null here, hides
   entries of the other protection than the one asked for. integrityVerified: what was read is as it was
   written. defaultProtected: the protection of entries that are made without a word about it. */
void Dictionary_SetHooks(Dictionary *dictionary, const DictionaryHooks *hooks);
void Dictionary_SetProtectionKey(Dictionary *dictionary, const void *key);
void Dictionary_SetIntegrityVerified(Dictionary *dictionary, bool integrityVerified);
void Dictionary_SetDefaultProtection(Dictionary *dictionary, bool defaultProtected);

/* The value of a setting, or fallback where there is none. Text is converted on the first typed read; text that is
   not of the type gives fallback, then and later, and a message. A value that has a type already is not
   converted again: asked for as another number type it is what it is (TRUE is 1), and between text and
   numbers it gives fallback.

   A name without a value gets one: unless fallback is null, FALSE or 0 (or -1 as a 32-bit integer or
   tri-state) it is stored as not persistent, for later reads to see. */
[[nodiscard]] bool Dictionary_GetBool(Dictionary *dictionary, bool fallback, const char *format, ...)
    FORMAT_ARGUMENTS(3, 4);
[[nodiscard]] int32_t Dictionary_GetTriState(Dictionary *dictionary, int32_t fallback, const char *format,
                                             ...) FORMAT_ARGUMENTS(3, 4);
[[nodiscard]] int32_t Dictionary_GetInt32(Dictionary *dictionary, int32_t fallback, const char *format, ...)
    FORMAT_ARGUMENTS(3, 4);
[[nodiscard]] int64_t Dictionary_GetInt64(Dictionary *dictionary, int64_t fallback, const char *format, ...)
    FORMAT_ARGUMENTS(3, 4);
[[nodiscard]] double Dictionary_GetDouble(Dictionary *dictionary, double fallback, const char *format, ...)
    FORMAT_ARGUMENTS(3, 4);

/* The same with text: a new string, which the caller frees, or null if there is no value and fallback is null. The
   first goes by the dictionary's default protection. */
[[nodiscard]] char *Dictionary_GetString(Dictionary *dictionary, const char *fallback, const char *format,
                                         ...) FORMAT_ARGUMENTS(3, 4);
[[nodiscard]] char *Dictionary_GetStringPlain(Dictionary *dictionary, const char *fallback,
                                              const char *format, ...) FORMAT_ARGUMENTS(3, 4);
[[nodiscard]] char *Dictionary_GetStringProtected(Dictionary *dictionary, const char *fallback,
                                                  const char *format, ...) FORMAT_ARGUMENTS(3, 4);

/* Give a setting a value, a new setting if need be. A value from a file is first converted to the type; text for a
   setting that has another type is read as that type, or else the setting stays as it is, with a message.
   Only a real difference marks the setting as modified and the dictionary as changed: in the value, from
   text that could not be converted, or in the protection. Null is the empty string. */
void Dictionary_SetBool(Dictionary *dictionary, bool value, uint32_t flags, const char *name);
void Dictionary_SetTriState(Dictionary *dictionary, int32_t value, uint32_t flags, const char *name);
void Dictionary_SetInt32(Dictionary *dictionary, int32_t value, uint32_t flags, const char *name);
void Dictionary_SetInt64(Dictionary *dictionary, int64_t value, uint32_t flags, const char *name);
void Dictionary_SetDouble(Dictionary *dictionary, double value, uint32_t flags, const char *name);
void Dictionary_SetString(Dictionary *dictionary, const char *value, uint32_t flags, const char *name);
void Dictionary_SetStringFormat(Dictionary *dictionary, const char *value, uint32_t flags, const char *format,
                                ...) FORMAT_ARGUMENTS(4, 5);

/* Sets from a text of the form NAME=VALUE, in which "=VALUE" may be missing, as an untyped value. With noOverwrite a
   name that is there already is left alone, with a message. */
void Dictionary_SetFromString(Dictionary *dictionary, const char *text, bool noOverwrite, MsgList *messages);

/* Removes a setting with its line; every setting whose name begins with prefix, in any case. */
void Dictionary_Unset(Dictionary *dictionary, const char *name);
void Dictionary_UnsetPrefix(Dictionary *dictionary, const char *prefix);

[[nodiscard]] bool Dictionary_IsDefined(const Dictionary *dictionary, const char *name);

/* Whether there is something to write: set and unset mark a dictionary, reading and writing a file clear that. */
[[nodiscard]] bool Dictionary_IsChanged(const Dictionary *dictionary);

/* The value as a file would hold it, unescaped and in UTF-8, as a new string that the caller frees; null if there is
   none. Converts and creates nothing. */
[[nodiscard]] char *Dictionary_GetText(const Dictionary *dictionary, const char *name);

/* The number of the line, from 1, of the file or buffer that the setting was read from; 0 if it was set otherwise. */
[[nodiscard]] int Dictionary_GetLineNumber(const Dictionary *dictionary, const char *name);

/* Calls visit with the name of each setting that is persistent, in order, until it gives false. It may read the
   dictionary, not change it. */
void Dictionary_ForEach(const Dictionary *dictionary, bool (*visit)(const char *name, void *context),
                        void *context);

/* Logs every setting that is persistent, without the values of those that are known to be secrets. */
void Dictionary_Dump(const Dictionary *dictionary);

/* The words for truth, in any case: "true", "t", "yes", "y", "on", "1" or nothing at all; "false", "f", "no", "n",
   "off", "0". Any other, or null, is invalid, and FALSE. Tri-states know "default", "dontcare" and "auto"
   too. */
[[nodiscard]] bool Dictionary_ParseBool(const char *text, bool *invalid);
[[nodiscard]] int32_t Dictionary_ParseTriState(const char *text, bool *invalid);

#endif
