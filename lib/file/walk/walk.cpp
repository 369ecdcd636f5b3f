#include "lib/file/file.h"

#include "base/owned.h"
#include "lib/file/walk/entries.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <span>
#include <string_view>

struct WalkDirContext {
   Owned<char> path; /* For reports. */
   OwnedDirectory stream;
   HashTable *names; /* Those returned so far. The keys are the walk's own copies. */
};

namespace {

using namespace std::string_view_literals;

constexpr const char *MODULE = "lib/file/fileWalk";
constexpr uint32_t NAME_BUCKETS = 256;

/* Stands for every name that is not UTF-8: three U+FFFD. */
constexpr char UNDECODABLE_NAME[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";

int FileFreeKey(const void *key, void * /*value*/, void * /*clientData*/)
{
   free(const_cast<void *>(key));
   return 0;
}

/* The name, or what stands for it. */
const char *FileDecodedName(const char *name, const char *folder)
{
   if (CodeSet_IsValidUtf8(name)) {
      return name;
   }
   /* In the wording the name comes first, but the folder has always been given first: readers of logs rely on it. */
   const Owned<char> escaped(UnicodeEscapeBuffer(name, -1, ENCODING_DEFAULT));
   Warning("%s: file '%s' in directory '%s' cannot be converted to UTF8\n", "File_WalkDirectoryNext", folder,
           escaped.get());
   return UNDECODABLE_NAME;
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

int FileNames::Read(DIR *stream, const char *path)
{
   while (const struct dirent *const entry = FileNextEntry(stream)) {
      const char *const name = FileDecodedName(entry->d_name, path);
      /* What a name that stands for another leads to is of no known kind. */
      const bool known = entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN && name == entry->d_name;
      const char mark = known ? 1 : 0;
      DynBuf_SafeAppend(&records_, &mark, sizeof mark, MODULE, __LINE__);
      DynBuf_SafeAppend(&records_, name, strlen(name) + 1, MODULE, __LINE__);
   }
   const int error = errno;
   if (error != 0) {
      DynBuf_Destroy(&records_);
   }
   return error;
}

bool FileNames::Next()
{
   if (next_ == records_.size) {
      return false;
   }
   at_ = next_;
   next_ += 1 + strlen(Name()) + 1;
   return true;
}

WalkDirContext *File_WalkDirectoryStart(const char *path)
{
   if (path == nullptr) {
      errno = EFAULT;
      return nullptr;
   }
   OwnedDirectory stream(opendir(path));
   if (stream == nullptr) {
      return nullptr;
   }
   return new (Util_SafeMalloc(sizeof(WalkDirContext)))
       WalkDirContext{.path = Owned<char>(Util_SafeStrdup(path)),
                      .stream = std::move(stream),
                      .names = HashTable_Alloc(NAME_BUCKETS, HASH_STRING_KEY, nullptr)};
}

bool File_WalkDirectoryNext(WalkDirContext *context, char **name)
{
   while (const struct dirent *const entry = FileNextEntry(context->stream.get())) {
      Owned<char> found(Util_SafeStrdup(FileDecodedName(entry->d_name, context->path.get())));
      if (HashTable_Insert(context->names, found.get(), nullptr)) {
         const char *const key = found.release();
         if (name != nullptr) {
            *name = Util_SafeStrdup(key);
         }
         errno = 0;
         return true;
      }
   }
   return false;
}

void File_WalkDirectoryEnd(WalkDirContext *context)
{
   if (context == nullptr) {
      return;
   }
   const KeptErrno kept;
   const Owned<WalkDirContext> block(context);
   HashTable_ForEach(context->names, FileFreeKey, nullptr);
   HashTable_Free(context->names);
   std::destroy_at(context);
}

int File_ListDirectory(const char *path, char ***names)
{
   WalkDirContext *const walk = File_WalkDirectoryStart(path);
   OwnedDynBuf list;
   char *name;

   if (walk == nullptr) {
      return -1;
   }
   while (File_WalkDirectoryNext(walk, &name)) {
      DynBuf_SafeAppend(&list, &name, sizeof name, MODULE, __LINE__);
   }
   const int error = errno;
   File_WalkDirectoryEnd(walk);
   const std::span<char *> found(reinterpret_cast<char **>(list.data), list.size / sizeof name);
   if (error == 0 && names != nullptr) {
      *names = static_cast<char **>(DynBuf_Detach(&list));
   } else {
      std::for_each(found.begin(), found.end(), free);
   }
   errno = error;
   return error == 0 ? static_cast<int>(found.size()) : -1;
}
