#include "lib/file/lock/place.h"

#include "lib/file/lock/member.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
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

const char *FileLockDirectoryName(const FileLockPlace &place)
{
   return strrchr(place.directory.get(), '/') + 1;
}

/* The path is free of links: one that is there now was put there since. A slash at the end would have it followed. */
int FileLockOpenFolder(const FileLockPlace &place)
{
   const char *const path = place.directory.get();
   const ptrdiff_t length = std::max<ptrdiff_t>(strrchr(path, '/') - path, 1);
   const Owned<char> folder(Util_SafeStrndup(path, static_cast<size_t>(length)));
   return open(folder.get(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/* Of a call that gives -1 with errno. */
int FileLockResult(int result)
{
   return result != -1 ? 0 : errno == ESTALE ? ENOENT : errno;
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
   place->folder.reset(FileLockOpenFolder(*place));
   return FileLockResult(place->folder.get());
}

int FileLockPlace_Make(const FileLockPlace &place)
{
   return FileLockResult(mkdirat(place.folder.get(), FileLockDirectoryName(place), 0777));
}

int FileLockPlace_Look(const FileLockPlace &place, struct stat *status)
{
   return FileLockResult(
       fstatat(place.folder.get(), FileLockDirectoryName(place), status, AT_SYMLINK_NOFOLLOW));
}

int FileLockPlace_Open(FileLockPlace *place)
{
   place->stream = FileOpenStream(OwnedDescriptor(openat(place->folder.get(), FileLockDirectoryName(*place),
                                                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
   return FileLockResult(place->stream != nullptr ? 0 : -1);
}

int FileLockPlace_Clear(const FileLockPlace &place, bool isDirectory)
{
   return FileLockResult(
       unlinkat(place.folder.get(), FileLockDirectoryName(place), isDirectory ? AT_REMOVEDIR : 0));
}

Owned<char> FileLockPlace_Path(const FileLockPlace &place, const char *name)
{
   return Owned<char>(Unicode_Join(place.directory.get(), "/", name, nullptr));
}

FileLockState FileLockPlace_Judge(const FileLockPlace &place, std::string_view machine, const char *execution,
                                  std::string_view checksum)
{
   const bool isThis = machine == place.self.machine && execution == std::string_view(place.self.execution);

   if (!isThis && machine == place.self.machine && !FileLockValidExecutionID(execution)) {
      return FILE_LOCK_STALE;
   }
   return checksum == place.checksum ? FILE_LOCK_WAITS : FILE_LOCK_MOVED;
}

int FileLockPlace_MakeDirectory(const FileLockPlace &place, const char *name)
{
   return FileLockResult(mkdirat(dirfd(place.stream.get()), name, 0777));
}

int FileLockPlace_CreateFile(const FileLockPlace &place, const char *name, OwnedDescriptor *file)
{
   file->reset(openat(dirfd(place.stream.get()), name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
   return FileLockResult(file->get());
}

int FileLockPlace_Rename(const FileLockPlace &place, const char *from, const char *to)
{
   const int folder = dirfd(place.stream.get());
   return FileLockResult(renameat(folder, from, folder, to));
}

int FileLockPlace_OpenDirectory(const FileLockPlace &place, const char *name, OwnedDirectory *directory)
{
   *directory = FileOpenStream(OwnedDescriptor(
       openat(dirfd(place.stream.get()), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
   return FileLockResult(*directory != nullptr ? 0 : -1);
}

int FileLockPlace_Status(const FileLockPlace &place, const char *name, struct stat *status)
{
   return FileLockResult(fstatat(dirfd(place.stream.get()), name, status, AT_SYMLINK_NOFOLLOW));
}

int FileLockPlace_Remove(const FileLockPlace &place, const char *name, bool isDirectory)
{
   return FileLockResult(unlinkat(dirfd(place.stream.get()), name, isDirectory ? AT_REMOVEDIR : 0));
}

int FileLockRemoveLockingFile(const OwnedDirectory &directory, const char *path)
{
   const int error = FileLockResult(unlinkat(dirfd(directory.get()), strrchr(path, '/') + 1, 0));

   if (error == 0 || error == ENOENT) {
      return 0;
   }
   Log("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile", path, strerror(error));
   return error;
}

void FileLockPlace_RemoveSelf(const OwnedDirectory &directory, const char *path)
{
   const Owned<char> self(Unicode_Join("..", strrchr(path, '/'), nullptr));
   static_cast<void>(unlinkat(dirfd(directory.get()), self.get(), AT_REMOVEDIR));
}
