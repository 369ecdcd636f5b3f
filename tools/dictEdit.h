#ifndef TESSEL_TOOLS_DICTEDIT_H
#define TESSEL_TOOLS_DICTEDIT_H

#include <cstdint>

struct DynBuf;
struct FileIOHandle;
struct MsgList;

enum class DictEditResult : uint8_t {
   DONE,
   ABSENT, /* There is no setting to remove, and nothing was changed. */
   BUSY,   /* Others held the lock of the file until the wait was over, as the message list says. */
   FAILED, /* For the reason in the message list. */
};

struct DictEdit {
   const char *path;
   const char *name;
   const char *value;  /* In UTF-8; null: remove the setting. */
   uint64_t maxBytes;  /* A larger file is refused. */
   uint32_t maxWaitMs; /* For the lock, as FileLock_Lock takes it. */
};

/* Gives one setting of a file another value, or removes it, and leaves every other byte as it is: blanks, comments,
   also that behind the value, line ends, the byte-order mark, the line of the encoding. A new setting goes to
   the end. The lock of the file is held from before it is read, once, until it is replaced, as by
   Dictionary_WriteFile. A file that would not load is not touched, one that needs no change not written. One
   that is not there comes to be with all its content, but not through a link. */
[[nodiscard]] DictEditResult DictEdit_Run(const DictEdit &edit, MsgList *messages);

/* Opens a dictionary file, regular and not too large, without a wait, and reads it into content. False, with a message;
   the file is closed or to be closed. */
[[nodiscard]] bool DictEdit_ReadFile(FileIOHandle *file, const char *path, int flags, uint64_t maxBytes,
                                     DynBuf *content, MsgList *messages);

#endif
