#include "lib/user/dictionary.h"

#include "base/owned.h"
#include "lib/file/fileIO.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"
#include "lib/user/dictionary/file.h"
#include "lib/user/dictionary/read.h"
#include "lib/user/dictionary/state.h"
#include "lib/user/dictionary/write.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *LOAD = "DictionaryLoad";
constexpr const char *SAVE_COPY = "DictionarySaveFileCopy";
constexpr const char *MAKE_EXECUTABLE = "Dictionary_MakeExecutable";

constexpr size_t BLOCK_SIZE = size_t{64} * 1024;

std::atomic<int> sCopies;

constexpr uint64_t ANY_FILE = UINT64_MAX;
std::atomic<uint64_t> sMaxBytes = ANY_FILE; /* Otherwise regular files only. */

/* A stream to read secrets from, through a buffer that is zeroed. Null: none, and errno says why. */
class DictionaryInput {
 public:
   explicit DictionaryInput(FILE *stream) : stream_(stream)
   {
      if (stream != nullptr && Secret_Reserve(buffer_.get(), BLOCK_SIZE)) {
         static_cast<void>(setvbuf(stream, buffer_.get()->data, _IOFBF, BLOCK_SIZE));
      }
   }

   [[nodiscard]] FILE *get() const
   {
      return stream_.get();
   }

 private:
   SecretBuffer buffer_;
   OwnedStream stream_; /* Closed before its buffer goes. */
};

/* The file's content in a stream's stead. False with errno set. */
bool DictionaryReadRegular(const char *path, uint64_t maxBytes, DynBuf *content)
{
   FileIOHandle file;

   const bool read =
       FileIO_OpenRegular(&file, path, O_RDONLY, 0, maxBytes) && DictionaryFile_Read(file, maxBytes, content);
   const KeptErrno kept;
   FileIO_Close(&file);
   return read;
}

FILE *DictionaryOpenStream(const char *path)
{
   FILE *stream;
   do {
      stream = fopen(path, "re");
   } while (stream == nullptr && errno == EINTR);
   return stream;
}

bool DictionaryReportLoadOpen(const char *path, MsgList *messages)
{
   Log("%s: Cannot open file \"%s\": %s.\n", LOAD, path, strerror(errno));
   MsgList_Append(messages, MSGLIST_ID("dictionary.load.openFailed") "Cannot open file \"%s\": %s.\n", path,
                  strerror(errno));
   return false;
}

bool DictionaryReportLoadStat(const char *path, MsgList *messages)
{
   Log("%s: Unable to get information about file \"%s\": %s.\n", LOAD, path, strerror(errno));
   MsgList_Append(messages,
                  MSGLIST_ID("dictionary.load.statFailed") "Unable to get information about file \"%s\": "
                                                           "%s.\n",
                  path, strerror(errno));
   return false;
}

bool DictionaryReportLoadDirectory(const char *path, MsgList *messages)
{
   Log("%s: \"%s\" is a directory.\n", LOAD, path);
   MsgList_Append(messages, MSGLIST_ID("dictionary.load.isDirectory") "\"%s\" is a directory.\n", path);
   return false;
}

bool DictionaryLoadRegular(Dictionary *dictionary, const char *path, uint64_t maxBytes,
                           EncodingId defaultEncoding, MsgList *messages)
{
   SecretBuffer content;

   if (!DictionaryReadRegular(path, maxBytes, content.get())) {
      return DictionaryReportLoadOpen(path, messages);
   }
   return DictionaryReadContent(dictionary, {content.get()->data, content.get()->size}, path, defaultEncoding,
                                messages);
}

bool DictionaryLoadFile(Dictionary *dictionary, const char *path, EncodingId defaultEncoding,
                        MsgList *messages)
{
   struct stat attributes;
   const DictionaryInput stream(DictionaryOpenStream(path));

   if (stream.get() == nullptr) {
      return DictionaryReportLoadOpen(path, messages);
   }
   if (fstat(fileno(stream.get()), &attributes) == -1) {
      return DictionaryReportLoadStat(path, messages);
   }
   if (S_ISDIR(attributes.st_mode)) {
      return DictionaryReportLoadDirectory(path, messages);
   }
   return DictionaryReadStream(dictionary, stream.get(), path, defaultEncoding, messages);
}

bool DictionarySeekStart(const FileIOHandle *handle, MsgList *messages)
{
   if (lseek(handle->fd, 0, SEEK_SET) == 0) {
      return true;
   }
   MsgList_Append(messages, MSGLIST_ID("dictionary.loadFile.seekFailed") "Cannot seek file \"%s\": %s.\n",
                  handle->path, strerror(errno));
   return false;
}

/* On a copy of the descriptor, since the end of a stream closes its own. */
bool DictionaryReadHandle(Dictionary *dictionary, const FileIOHandle *handle, MsgList *messages)
{
   OwnedDescriptor copy(fcntl(handle->fd, F_DUPFD_CLOEXEC, 0));
   const DictionaryInput stream(copy.get() != -1 ? fdopen(copy.get(), "r") : nullptr);

   if (stream.get() == nullptr) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.loadFileStream.failed") "Cannot open file stream \"%s\": %s.\n",
                     handle->path, strerror(errno));
      return false;
   }
   [[maybe_unused]] const int now = copy.release();
   return DictionaryReadStream(dictionary, stream.get(), handle->path, ENCODING_DEFAULT, messages);
}

bool DictionaryExport(Dictionary *dictionary, MsgList *messages, DynBuf *text)
{
   if (!DictionaryRender(dictionary, true, messages, text)) {
      DictionaryReportExport(messages);
      return false;
   }
   return true;
}

std::string_view DictionaryText(const DynBuf *text)
{
   return {text->data, text->size};
}

bool DictionaryWriteOpenFile(Dictionary *dictionary, FileIOHandle *file)
{
   SecretBuffer text;

   if (!DictionaryExport(dictionary, dictionary->messages, text.get()) ||
       !DictionaryFile_Replace(file, DictionaryText(text.get()), dictionary->messages)) {
      return false;
   }
   DictionaryMarkSaved(dictionary);
   return true;
}

bool DictionaryCopyBlock(int to, const char *block, size_t size)
{
   while (size != 0) {
      const ssize_t written = Uninterrupted([&] { return write(to, block, size); });
      if (written == -1) {
         return false;
      }
      block += written;
      size -= static_cast<size_t>(written);
   }
   return true;
}

bool DictionaryCopyContent(int from, int to)
{
   std::array<char, 4096> block;
   ssize_t count;
   bool complete = true;

   while (complete && (count = Uninterrupted([&] { return read(from, block.data(), block.size()); })) != 0) {
      complete = count != -1 && DictionaryCopyBlock(to, block.data(), static_cast<size_t>(count));
   }
   Secret_Zero(block.data(), block.size());
   return complete;
}

bool DictionaryCopyTo(const FileIOHandle *handle, const char *path)
{
   struct stat attributes;
   FileIOHandle copy;

   if (fstat(handle->fd, &attributes) == -1) {
      return false;
   }
   /* Never through a link, and never wider open than the file. */
   if (unlink(path) == -1 && errno != ENOENT) {
      return false;
   }
   if (!FileIO_Open(&copy, path, O_WRONLY | O_CREAT | O_EXCL, attributes.st_mode & 0777)) {
      return false;
   }
   const bool copied = DictionaryCopyContent(handle->fd, copy.fd);
   if (FileIO_Close(&copy) && copied) {
      return true;
   }
   unlink(path);
   return false;
}

} // namespace

bool DictionaryLoad(Dictionary *dictionary, const char *path, bool clear, EncodingId defaultEncoding,
                    MsgList *messages)
{
   if (clear) {
      Dictionary_Clear(dictionary);
   }
   if (path == nullptr) {
      return true;
   }
   if (strcmp(path, "-") == 0) {
      return DictionaryReadStream(dictionary, stdin, "<stdin>", defaultEncoding, messages);
   }
   const uint64_t maxBytes = sMaxBytes;
   return maxBytes == ANY_FILE ? DictionaryLoadFile(dictionary, path, defaultEncoding, messages)
                               : DictionaryLoadRegular(dictionary, path, maxBytes, defaultEncoding, messages);
}

void DictionaryLoadOnlyRegular(uint64_t maxBytes)
{
   sMaxBytes = std::min(maxBytes, ANY_FILE - 1);
}

bool Dictionary_Load(Dictionary *dictionary, const char *path)
{
   return DictionaryLoad(dictionary, path, true, ENCODING_DEFAULT, dictionary->messages);
}

bool Dictionary_LoadUTF8(Dictionary *dictionary, const char *path)
{
   return DictionaryLoad(dictionary, path, true, ENCODING_UTF8, dictionary->messages);
}

bool Dictionary_Append(Dictionary *dictionary, const char *path)
{
   return DictionaryLoad(dictionary, path, false, ENCODING_DEFAULT, dictionary->messages);
}

bool Dictionary_LoadFromFileHandle(Dictionary *dictionary, FileIOHandle *handle, MsgList *messages)
{
   Dictionary_Clear(dictionary);
   if (!DictionarySeekStart(handle, messages)) {
      return false;
   }
   const bool read = DictionaryReadHandle(dictionary, handle, messages);
   return DictionarySeekStart(handle, messages) && read;
}

bool Dictionary_WriteFile(Dictionary *dictionary, const char *path)
{
   FileIOHandle file;

   if (!DictionaryFile_Open(&file, path, dictionary->messages)) {
      return false;
   }
   const bool written = DictionaryWriteOpenFile(dictionary, &file);
   return DictionaryFile_Close(&file, dictionary->messages) && written;
}

bool Dictionary_WriteToFileHandle(Dictionary *dictionary, FileIOHandle *handle, FileIOHandle *temporary,
                                  MsgList *messages)
{
   SecretBuffer text;

   if (!DictionaryExport(dictionary, messages, text.get())) {
      if (temporary != nullptr) {
         FileIO_AtomicDiscard(temporary);
      }
      return false;
   }
   if (!DictionaryFile_Store(handle, temporary, DictionaryText(text.get()), messages)) {
      return false;
   }
   DictionaryMarkSaved(dictionary);
   return true;
}

bool Dictionary_MakeExecutable(const char *path)
{
   struct stat attributes;

   if (stat(path, &attributes) == -1) {
      Log("%s: cannot stat configuration file %s: %s\n", MAKE_EXECUTABLE, path, strerror(errno));
      return false;
   }
   const mode_t mode = attributes.st_mode & 07777;
   if (chmod(path, mode | ((mode >> 2) & 0111)) == -1) {
      Log("%s: cannot change mode of file %s: %s\n", MAKE_EXECUTABLE, path, strerror(errno));
      return false;
   }
   return true;
}

bool DictionarySaveFileCopy(FileIOHandle *handle)
{
   const off_t offset = lseek(handle->fd, 0, SEEK_CUR);
   if (offset == -1) {
      Warning("%s: Unable to record the current position of file %s\n", SAVE_COPY, handle->path);
      return false;
   }
   if (lseek(handle->fd, 0, SEEK_SET) == -1) {
      Warning("%s: Unable to get to the begining position of file %s\n", SAVE_COPY, handle->path);
      return false;
   }
   const Owned<char> path(Str_SafeAsprintf(nullptr, "%s-%s-%d", handle->path, "copy", sCopies++));
   const bool copied = DictionaryCopyTo(handle, path.get());
   if (!copied) {
      Warning("%s: Unable to save a copy of %s\n", SAVE_COPY, handle->path);
   }
   if (lseek(handle->fd, offset, SEEK_SET) == -1) {
      Warning("%s: Unable to restore to original position for file %s\n", SAVE_COPY, handle->path);
      return false;
   }
   return copied;
}
