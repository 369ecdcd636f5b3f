#ifndef TESSEL_LIB_USER_DICTIONARY_EDIT_H
#define TESSEL_LIB_USER_DICTIONARY_EDIT_H

#include <cstdint>

struct MsgList;

enum class DictionaryEditResult : uint8_t {
   DONE,
   ABSENT, /* There is no setting to remove, and nothing was changed. */
   FAILED, /* For the reason in the message list. */
};

/* Whether a file can hold a setting of this name: ASCII without blanks, line feeds, "#" and "=", and not a name that speaks of the
   file itself (".encoding" and its kin). */
[[nodiscard]] bool Dictionary_IsSettingName(const char *name);

/* Gives one setting of a file another value, or removes it if value is null, and leaves every other byte as it is:
   blanks, comments, also that behind the value, line ends, the byte-order mark, the line of the encoding. A
   new setting goes to the end. A file that would not load is not touched, one that needs no change not
   written; otherwise the file is replaced as by Dictionary_WriteFile. value is UTF-8; where the file's
   encoding cannot hold it that is a failure. A file that does not exist is made, by Dictionary_WriteFile. */
[[nodiscard]] DictionaryEditResult Dictionary_EditFile(const char *path, const char *name, const char *value,
                                                       MsgList *messages);

#endif
