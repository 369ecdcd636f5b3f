#ifndef TESSEL_LIB_USER_DICTIONARY_FILE_H
#define TESSEL_LIB_USER_DICTIONARY_FILE_H

#include "lib/file/fileIO.h"

#include <string_view>

struct MsgList;

/* A finished text put into a dictionary file. Each routine gives false with a message for the user. */

/* Opens a file that is to be written, with its old content, or makes it. */
[[nodiscard]] bool DictionaryFile_Open(FileIOHandle *file, const char *path, MsgList *messages);

/* Makes the text the content of the open file: by way of temporary, from FileIO_AtomicTempFile, which is then used
   up, or, for null and where the one cannot take the other's place, by rewriting the file as it stands. */
[[nodiscard]] bool DictionaryFile_Store(FileIOHandle *file, FileIOHandle *temporary, std::string_view text,
                                        MsgList *messages);

/* The same by way of a temporary file of its own, if one can be made. */
[[nodiscard]] bool DictionaryFile_Replace(FileIOHandle *file, std::string_view text, MsgList *messages);

/* Makes temporary, which is used up, with the text in it the new file at path in temporary's folder. A file that is
   there by now stays as it is, and that is a failure. */
[[nodiscard]] bool DictionaryFile_StoreNew(FileIOHandle *temporary, const char *path, std::string_view text,
                                           MsgList *messages);

[[nodiscard]] bool DictionaryFile_Close(FileIOHandle *file, MsgList *messages);

#endif
