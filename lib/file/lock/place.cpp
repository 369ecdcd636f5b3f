#include "lib/file/lock/place.h"

#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

using namespace std::string_view_literals;

/* realpath(3) itself: Posix_RealPath ends the process where a folder's name is no UTF-8, and the folders on the way to
   a file are not always its user's own. */
Owned<char> FileLockResolve(std::string_view path)
{
   const Owned<char> copy(Util_SafeStrndup(path.data(), path.size()));
   return Owned<char>(realpath(copy.get(), nullptr));
}

/* The folder of the file in canonical form and the name, so that a file has one lock under all its names. The file
   itself need not be there. */
Owned<char> FileLockCanonical(std::string_view path)
{
   while (path.size() > 1 && path.ends_with('/')) {
      path.remove_suffix(1);
   }
   const size_t slash = path.rfind('/');
   const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
   if (name.empty() || name == "."sv || name == ".."sv) {
      return FileLockResolve(path);
   }
   const Owned<char> folder =
       FileLockResolve(slash == std::string_view::npos ? "." : path.substr(0, slash + 1));
   if (folder == nullptr) {
      return nullptr;
   }
   const char *const separator = folder.get() == "/"sv ? "" : "/";
   return Owned<char>(Str_SafeAsprintf(nullptr, "%s%s%.*s", folder.get(), separator,
                                       static_cast<int>(name.size()), name.data()));
}

} // namespace

int FileLockPlace_Find(FileLockPlace *place, const char *path)
{
   place->path = FileLockCanonical(path);
   if (place->path == nullptr || !FileLockIdentity_Get(&place->self)) {
      return errno;
   }
   place->directory.reset(Unicode_Join(place->path.get(), FILE_LOCK_SUFFIX, nullptr));
   FileLockIdentity_Checksum(place->directory.get(), place->checksum);
   return 0;
}

Owned<char> FileLockPlace_Path(const FileLockPlace &place, const char *name)
{
   return Owned<char>(Unicode_Join(place.directory.get(), "/", name, nullptr));
}

int FileLockPlace_Open(FileLockPlace *place)
{
   place->stream.reset(opendir(place->directory.get()));
   return place->stream != nullptr ? 0 : errno;
}

int FileLockPlace_Make(const FileLockPlace &place)
{
   const ClearedMask cleared;
   return mkdir(place.directory.get(), 0777) == 0 ? 0 : errno;
}

int FileLockPlace_MakeDirectory(const FileLockPlace &place, const char *name)
{
   const ClearedMask cleared;
   return mkdirat(dirfd(place.stream.get()), name, 0777) == 0 ? 0 : errno;
}

int FileLockPlace_CreateFile(const FileLockPlace &place, const char *name)
{
   const ClearedMask cleared;
   return openat(dirfd(place.stream.get()), name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
}

int FileLockPlace_Rename(const FileLockPlace &place, const char *from, const char *to)
{
   const int folder = dirfd(place.stream.get());
   return renameat(folder, from, folder, to) == 0 ? 0 : errno;
}

OwnedDirectory FileLockPlace_OpenDirectory(const FileLockPlace &place, const char *name)
{
   return FileOpenStream(OwnedDescriptor(
       openat(dirfd(place.stream.get()), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
}

int FileLockPlace_Status(const FileLockPlace &place, const char *name, struct stat *status)
{
   return fstatat(dirfd(place.stream.get()), name, status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

int FileLockPlace_Remove(const FileLockPlace &place, const char *name, bool isDirectory)
{
   return unlinkat(dirfd(place.stream.get()), name, isDirectory ? AT_REMOVEDIR : 0) == 0 ? 0 : errno;
}

int FileLockRemoveLockingFile(const FileLockPlace &place, const char *name)
{
   const int error = FileLockPlace_Remove(place, name, false);

   return error == 0 || error == ENOENT ? 0
                                        : FileLockReportRemoval(FileLockPlace_Path(place, name).get(), error);
}

int FileLockReportRemoval(const char *path, int error)
{
   Log("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile", path, strerror(error));
   return error;
}
