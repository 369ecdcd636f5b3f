#ifndef TESSEL_LIB_USER_DICTIONARY_FILE_H
#define TESSEL_LIB_USER_DICTIONARY_FILE_H

#include "lib/file/fileIO.h"

#include <cstdint>
#include <string_view>

struct DynBuf;
struct MsgList;

/* The content of a dictionary file as a whole. Each routine that takes a message list gives false with a message for the
   user. */

/* Opens a file that is to be written, with its old content, or makes it. */
[[nodiscard]] bool DictionaryFile_Open(FileIOHandle *file, const char *path, MsgList *messages);

/* Appends what is left of the open file, which is secret, to content. False with errno set: EFBIG for more than so many
   bytes, however few it had when it was opened. */
[[nodiscard]] bool DictionaryFile_Read(const FileIOHandle &file, uint64_t maxBytes, DynBuf *content);

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
