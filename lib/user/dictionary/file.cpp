#include "lib/user/dictionary/file.h"

#include "base/owned.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/user/msgList.h"
#include "platform/durable.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *MODULE = "lib/user/dictionary/file";

/* Deliberately executable: dictionary files may carry an interpreter line. */
constexpr mode_t NEW_FILE_MODE = 0754;

/* A stream on a descriptor that stays the caller's. It buffers nothing: the text is in one piece already, and no
   second copy of its secrets is to lie about; so all is written, or its failure known, before it is closed.
 */
OwnedStream DictionaryFileStream(int fd)
{
   OwnedDescriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
   if (copy.get() == -1) {
      return nullptr;
   }
   /* "w" empties nothing here, and takes a descriptor that cannot be read. */
   OwnedStream stream(fdopen(copy.get(), "w"));
   if (stream == nullptr) {
      return nullptr;
   }
   [[maybe_unused]] const int now = copy.release();
   if (setvbuf(stream.get(), nullptr, _IONBF, 0) != 0) {
      return nullptr;
   }
   return stream;
}

bool DictionaryFileWrite(FILE *stream, std::string_view text)
{
   while (!text.empty()) {
      errno = 0;
      text.remove_prefix(fwrite(text.data(), 1, text.size(), stream));
      if (!text.empty() && errno != EINTR) {
         return false;
      }
      clearerr(stream);
   }
   return true;
}

bool DictionaryFileTruncate(int fd, size_t size)
{
   return Uninterrupted([&] { return ftruncate(fd, static_cast<off_t>(size)); }) == 0;
}

/* The whole of writing one open file, to the medium. */
bool DictionaryFileFill(const FileIOHandle &file, std::string_view text, MsgList *messages)
{
   const OwnedStream stream = DictionaryFileStream(file.fd);
   if (stream == nullptr) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.writefile.descToStream") "An error occurred while converting "
                                                                     "the descriptor of file \"%s\" while "
                                                                     "it is open: %s.\n",
                     file.path, strerror(errno));
      return false;
   }
   if (fseeko(stream.get(), 0, SEEK_SET) == -1) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.writefile.seek") "An error occurred while seeking within "
                                                             "configuration file \"%s\":%s.\n",
                     file.path, strerror(errno));
      return false;
   }
   if (!DictionaryFileWrite(stream.get(), text)) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.writefile.write") "An error occurred while writing configuration "
                                                              "file \"%s\": %s.\n",
                     file.path, strerror(errno));
      return false;
   }
   if (!DictionaryFileTruncate(file.fd, text.size())) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.writefile.truncate") "An error occurred while truncating "
                                                                 "configuration file \"%s\":%s.\n",
                     file.path, strerror(errno));
      return false;
   }
   if (fflush(stream.get()) != 0) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.writefile.flush") "An error occurred while flushing "
                                                              "configuration file \"%s\": %s.\n",
                     file.path, strerror(errno));
      return false;
   }
   return true;
}

void DictionaryFileReportSync(const char *path, MsgList *messages)
{
   MsgList_Append(messages,
                  MSGLIST_ID("dictionary.writefile.sync") "An error occurred while syncing configuration "
                                                          "file \"%s\": %s.\n",
                  path, strerror(errno));
}

void DictionaryFileReportUpdate(const char *path, MsgList *messages)
{
   MsgList_Append(messages,
                  MSGLIST_ID("dictionary.writefile.atomicUpdate") "An error occurred while writing "
                                                                  "dictionary file \"%s\": %s.",
                  path, strerror(errno));
}

bool DictionaryFileWriteThrough(const FileIOHandle &file, std::string_view text, MsgList *messages)
{
   if (!DictionaryFileFill(file, text, messages)) {
      return false;
   }
   if (!Durable_File(file.fd)) {
      DictionaryFileReportSync(file.path, messages);
      return false;
   }
   return true;
}

void DictionaryFileReportOpen(const char *path, int error, MsgList *messages)
{
   switch (error) {
   case EPERM:
   case EACCES:
   case EROFS:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.permissions") "Access to \"%s\" failed due to file system "
                                                          "permissions issues\n",
                     path);
      break;
   case ENAMETOOLONG:
      MsgList_Append(messages, MSGLIST_ID("dictionary.nameTooLong") "%s", strerror(error));
      break;
   default:
      MsgList_Append(messages, MSGLIST_ID("dictionary.open") "Cannot open configuration file \"%s\": %s.\n",
                     path, strerror(error));
      break;
   }
}

/* The last component of a full path. */
const char *DictionaryFileName(const char *path)
{
   return strrchr(path, '/') + 1;
}

/* Gives the temporary file another name, which nothing must have. False with errno set. */
bool DictionaryFileLink(const FileIOHandle &temporary, const char *name)
{
   const int folder = temporary.folder;
   const char *const old = DictionaryFileName(temporary.path);

   if (linkat(folder, old, folder, name, 0) == 0) {
      /* A name too many does no harm: who writes next removes it. */
      static_cast<void>(unlinkat(folder, old, 0));
      return true;
   }
   if (errno != EPERM && errno != ENOTSUP) {
      return false;
   }
   /* A file system without hard links: the name is taken first, by an empty file. */
   const OwnedDescriptor made(Uninterrupted(
       [&] { return openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, NEW_FILE_MODE); }));
   return made.get() != -1 && renameat(folder, old, folder, name) == 0;
}

} // namespace

bool DictionaryFile_Open(FileIOHandle *file, const char *path, MsgList *messages)
{
   struct stat old;
   const mode_t mode = stat(path, &old) == 0 ? old.st_mode & 07777 : NEW_FILE_MODE;

   if (!FileIO_Open(file, path, O_RDWR | O_CREAT, mode)) {
      DictionaryFileReportOpen(path, errno, messages);
      return false;
   }
   return true;
}

bool DictionaryFile_Read(const FileIOHandle &file, uint64_t maxBytes, DynBuf *content)
{
   std::array<char, 16384> block;
   uint64_t left = maxBytes;
   ssize_t count;

   while ((count = Uninterrupted([&] { return read(file.fd, block.data(), block.size()); })) > 0) {
      const auto size = static_cast<size_t>(count);
      if (size > left) {
         errno = EFBIG;
         count = -1;
         break;
      }
      left -= size;
      Secret_SafeAppend(content, block.data(), size, MODULE, __LINE__);
   }
   Secret_Zero(block.data(), block.size());
   return count == 0;
}

bool DictionaryFile_Store(FileIOHandle *file, FileIOHandle *temporary, std::string_view text,
                          MsgList *messages)
{
   if (temporary == nullptr) {
      return DictionaryFileWriteThrough(*file, text, messages);
   }
   /* A disk that is full now would leave nothing of the old content if the file itself were tried next. */
   if (!DictionaryFileWriteThrough(*temporary, text, messages)) {
      FileIO_AtomicDiscard(temporary);
      return false;
   }
   if (!FileIO_AtomicUpdateEx(temporary, file)) {
      DictionaryFileReportUpdate(file->path, messages);
      FileIO_AtomicDiscard(temporary);
      return DictionaryFileWriteThrough(*file, text, messages);
   }
   const bool durable = Durable_File(temporary->folder);
   if (!durable) {
      DictionaryFileReportSync(file->path, messages);
   }
   FileIO_Close(temporary);
   return durable;
}

bool DictionaryFile_Replace(FileIOHandle *file, std::string_view text, MsgList *messages)
{
   FileIOHandle temporary;
   const bool made = FileIO_AtomicTempFile(file, &temporary);

   /* Another file is in its place by now, or none: rewriting the open one would save nothing. */
   if (!made && (errno == ESTALE || errno == ENOENT)) {
      DictionaryFileReportUpdate(file->path, messages);
      return false;
   }
   return DictionaryFile_Store(file, made ? &temporary : nullptr, text, messages);
}

bool DictionaryFile_StoreNew(FileIOHandle *temporary, const char *path, std::string_view text,
                             MsgList *messages)
{
   bool stored = DictionaryFileWriteThrough(*temporary, text, messages);
   if (stored && !DictionaryFileLink(*temporary, DictionaryFileName(path))) {
      DictionaryFileReportUpdate(path, messages);
      stored = false;
   }
   if (!stored) {
      FileIO_AtomicDiscard(temporary);
      return false;
   }
   const bool durable = Durable_File(temporary->folder);
   if (!durable) {
      DictionaryFileReportSync(path, messages);
   }
   FileIO_Close(temporary);
   return durable;
}

bool DictionaryFile_Close(FileIOHandle *file, MsgList *messages)
{
   const Owned<char> path(Util_SafeStrdup(file->path));

   if (!FileIO_Close(file)) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.close") "An error occurred while closing configuration file "
                                                    "\"%s\": %s.\n",
                     path.get(), strerror(errno));
      return false;
   }
   return true;
}
