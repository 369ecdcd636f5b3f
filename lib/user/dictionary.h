#ifndef TESSEL_LIB_USER_DICTIONARY_H
#define TESSEL_LIB_USER_DICTIONARY_H

#include "lib/unicode/unicodeSimpleTypes.h"
#include "lib/user/dictionary_core.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

struct FileIOHandle;
struct MsgList;

/* Dictionaries in files. A file keeps its comments, the order of its lines and every line that was not changed. What a
   writer changes on its own: the line «.encoding = "UTF-8"» stands right behind the leading lines that begin
   with "#", other lines that begin with "." are gone, and so is a byte-order mark.

   A call that fails says why to the message list given, or, for those that are not given one, to the
   dictionary's own. All calls block for as long as the file takes. */

/* Read a file: Load and LoadUTF8 into the emptied dictionary, Append behind what it holds. A file without a word on its
   encoding is in the current one, for LoadUTF8 in UTF-8. "-" is standard input; null is nothing to read, and
   fine. False: what was read so far is in the dictionary; after a duplicate name, that is all of the file. */
[[nodiscard]] bool Dictionary_Load(Dictionary *dictionary, const char *path);
[[nodiscard]] bool Dictionary_LoadUTF8(Dictionary *dictionary, const char *path);
[[nodiscard]] bool Dictionary_Append(Dictionary *dictionary, const char *path);
[[nodiscard]] bool DictionaryLoad(Dictionary *dictionary, const char *path, bool clear,
                                  EncodingId defaultEncoding, MsgList *messages);

/* Has the process load only regular files of at most so many bytes by their path from now on, without a wait for another
   process; others cannot be opened. */
void DictionaryLoadOnlyRegular(uint64_t maxBytes);

/* Reads an open file from its start into the emptied dictionary and leaves it at its start. */
[[nodiscard]] bool Dictionary_LoadFromFileHandle(Dictionary *dictionary, FileIOHandle *handle,
                                                 MsgList *messages);

/* The same from the content of a file that has been read already and is called fileName in messages. */
[[nodiscard]] bool Dictionary_LoadFromContent(Dictionary *dictionary, std::string_view content,
                                              const char *fileName, MsgList *messages);

/* Reads a NUL-terminated text; unless append, after emptying the dictionary and calling its hook. A carriage return
   before a line feed is passed over. */
[[nodiscard]] bool Dictionary_Unmarshal(Dictionary *dictionary, const char *text, bool append,
                                        EncodingId defaultEncoding, MsgList *messages);

/* Whether a file can hold a setting of this name: ASCII without NUL, blanks, line feeds, "#" and "=", and not a name
   that speaks of the file itself (".encoding" and its kin). */
[[nodiscard]] bool Dictionary_IsSettingName(std::string_view name);

/* The encoding of the values in the file: ENCODING_UNKNOWN until the file or SetEncoding settles it, which converts the
   values held so far. False if it is not usable, differs from the one that holds, or does not fit a value:
   nothing has changed then. */
[[nodiscard]] EncodingId Dictionary_GetEncoding(const Dictionary *dictionary);
[[nodiscard]] bool Dictionary_SetEncoding(Dictionary *dictionary, EncodingId encoding, MsgList *messages);

/* The text of the file, NUL-terminated, as a new string that the caller frees, and its size, the NUL included; protect:
   the protected section goes through the hook. A value that the encoding cannot hold moves the dictionary to
   UTF-8. False: *text is null; a name that no file can hold, a value that is not UTF-8, or integrity that
   does not check out, which is only logged. */
[[nodiscard]] bool Dictionary_WriteToBuffer(Dictionary *dictionary, bool protect, char **text, size_t *size);

/* Writes the file, protected, and marks the dictionary unchanged. The file is replaced in one step by a finished one with
   its mode and owner, so that whoever reads it sees the old or the new one, whole, and after a power cut so
   too. Where no other file can be put in its place (a folder that may not be written, a foreign owner) it is
   rewritten as it stands. A failure before that point leaves the old content. A new file comes to be empty,
   with mode 0754 but for the umask, and is then replaced. The name of the temporary file is always the same:
   whoever may not be the only writer holds the lock of the file (FileLock_Lock of its real path, exclusive)
   from before it is read until after it is written, or one of two changes is lost, or both.
   Access control lists and extended attributes do not pass to the new file, and hard links part from it. */
[[nodiscard]] bool Dictionary_WriteFile(Dictionary *dictionary, const char *path);

/* The same to an open file, with temporary, unless null, from FileIO_AtomicTempFile, which is then used up; without one
   the file is rewritten as it stands. */
[[nodiscard]] bool Dictionary_WriteToFileHandle(Dictionary *dictionary, FileIOHandle *handle,
                                                FileIOHandle *temporary, MsgList *messages);

/* Lets everyone run the file who may read it. False, logged. */
[[nodiscard]] bool Dictionary_MakeExecutable(const char *path);

/* Puts "#!" and the interpreter first, unless the first line begins with "#!". Whether it did. Counts as no change. */
bool Dictionary_AddInterpreterLine(Dictionary *dictionary, const char *interpreter);

/* Puts the lines, an array that ends with a null, at the head, unless they stand there already. Each should begin with
   "#". Counts as no change. */
void Dictionary_AddHeaderLines(Dictionary *dictionary, const char *const *lines);

/* Copies an open file, whatever its offset, which is kept, to PATH-copy-N beside it; N counts the copies of the
   process from 0. An older file of that name is replaced. False, logged as a warning. */
bool DictionarySaveFileCopy(FileIOHandle *handle);

#endif
