#include "lib/file/file.h"

#include "base/owned.h"
#include "lib/file/walk/entries.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <utility>

struct WalkDirContext {
   const char *path; /* For reports. A copy, unless the walk ends in the routine that began it. */
   DIR *stream;
   HashTable *
       names; /* Those returned so far. The keys are the walk's own copies; a value that is not null means that
                 the directory says it is none itself. */
};

namespace {

using namespace std::string_view_literals;

constexpr uint32_t NAME_BUCKETS = 256;

/* Stands for every name that is not UTF-8: three U+FFFD. */
constexpr char UNDECODABLE_NAME[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";

int FileFreeKey(const void *key, void * /*value*/, void * /*clientData*/)
{
   free(const_cast<void *>(key));
   return 0;
}

/* Stores the entry at **clientData, and moves that on. */
int FileTakeEntry(const void *key, void *value, void *clientData)
{
   auto **const next = static_cast<FileEntry **>(clientData);

   *(*next)++ = {static_cast<char *>(const_cast<void *>(key)), value != nullptr};
   return 0;
}

/* Names that stand for others are of no known kind. */
bool FileIsNoDirectory(const struct dirent *entry, const char *name)
{
   return entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN && strcmp(name, UNDECODABLE_NAME) != 0;
}

/* A new string: the name, or what stands for it. */
char *FileDecodeName(const WalkDirContext *context, const char *name)
{
   if (CodeSet_IsValidUtf8(name)) {
      return Util_SafeStrdup(name);
   }
   /* In the wording the name comes first, but the folder has always been given first: readers of logs rely on it. */
   const Owned<char> escaped(UnicodeEscapeBuffer(name, -1, ENCODING_DEFAULT));
   Warning("%s: file '%s' in directory '%s' cannot be converted to UTF8\n", "File_WalkDirectoryNext",
           context->path, escaped.get());
   return Util_SafeStrdup(UNDECODABLE_NAME);
}

/* Moves all that the walk has returned to the list, and the walk is over. */
void FileTakeEntries(WalkDirContext *context, FileEntries *list)
{
   list->count = HashTable_GetNumElements(context->names);
   if (list->count > 0) {
      list->entries = static_cast<FileEntry *>(Util_SafeCalloc(list->count, sizeof(FileEntry)));
      FileEntry *next = list->entries;
      HashTable_ForEach(context->names, FileTakeEntry, &next);
      HashTable_Clear(context->names);
   }
}

WalkDirContext FileBeginWalk(DIR *stream, const char *path)
{
   return {.path = path, .stream = stream, .names = HashTable_Alloc(NAME_BUCKETS, HASH_STRING_KEY, nullptr)};
}

void FileEndWalk(const WalkDirContext *context)
{
   closedir(context->stream);
   HashTable_ForEach(context->names, FileFreeKey, nullptr);
   HashTable_Free(context->names);
}

/* Null with errno set. */
DIR *FileOpenPath(const char *path)
{
   if (path == nullptr) {
      errno = EFAULT;
      return nullptr;
   }
   return opendir(path);
}

/* As FileListEntries, of a stream that ends with the call; null is one that could not be opened. */
bool FileListStream(DIR *stream, const char *path, FileEntries *list)
{
   if (stream == nullptr) {
      return false;
   }
   WalkDirContext context = FileBeginWalk(stream, path);
   while (File_WalkDirectoryNext(&context, nullptr)) {
   }
   const int readError = errno;
   if (readError == 0) {
      FileTakeEntries(&context, list);
   }
   FileEndWalk(&context);
   errno = readError;
   return readError == 0;
}

} // namespace

OwnedDirectory FileOpenStream(OwnedDescriptor descriptor)
{
   OwnedDirectory stream(descriptor.get() == -1 ? nullptr : fdopendir(descriptor.get()));

   if (stream != nullptr) {
      static_cast<void>(descriptor.release());
   }
   return stream;
}

const struct dirent *FileNextEntry(DIR *stream)
{
   const struct dirent *entry;

   do {
      /* Before each read: only thus does errno tell the end of the directory from an error. */
      errno = 0;
      entry = readdir(stream);
   } while (entry != nullptr && (entry->d_name == "."sv || entry->d_name == ".."sv));
   return entry;
}

WalkDirContext *File_WalkDirectoryStart(const char *path)
{
   DIR *const stream = FileOpenPath(path);

   if (stream == nullptr) {
      return nullptr;
   }
   auto *const context = static_cast<WalkDirContext *>(Util_SafeMalloc(sizeof(WalkDirContext)));
   *context = FileBeginWalk(stream, Util_SafeStrdup(path));
   return context;
}

bool File_WalkDirectoryNext(WalkDirContext *context, char **name)
{
   for (;;) {
      const struct dirent *const entry = FileNextEntry(context->stream);
      if (entry == nullptr) {
         return false;
      }
      Owned<char> found(FileDecodeName(context, entry->d_name));
      void *const mark = FileIsNoDirectory(entry, found.get()) ? context : nullptr;
      if (HashTable_Insert(context->names, found.get(), mark)) {
         const char *const key = found.release();
         if (name != nullptr) {
            *name = Util_SafeStrdup(key);
         }
         errno = 0;
         return true;
      }
   }
}

void File_WalkDirectoryEnd(WalkDirContext *context)
{
   if (context == nullptr) {
      return;
   }
   const int savedErrno = errno;
   FileEndWalk(context);
   free(const_cast<char *>(context->path));
   free(context);
   errno = savedErrno;
}

bool FileListEntries(const char *path, FileEntries *list)
{
   return FileListStream(FileOpenPath(path), path, list);
}

bool FileListOpened(int directory, const char *path, FileEntries *list)
{
   OwnedDescriptor copy(fcntl(directory, F_DUPFD_CLOEXEC, 0));
   return FileListStream(FileOpenStream(std::move(copy)).release(), path, list);
}

int File_ListDirectory(const char *path, char ***names)
{
   FileEntries list;

   if (!FileListEntries(path, &list)) {
      return -1;
   }
   if (names != nullptr) {
      *names = nullptr;
      if (list.count > 0) {
         *names = static_cast<char **>(Util_SafeCalloc(list.count, sizeof(char *)));
      }
      for (size_t i = 0; i < list.count; i++) {
         (*names)[i] = std::exchange(list.entries[i].name, nullptr);
      }
   }
   return static_cast<int>(list.count);
}
