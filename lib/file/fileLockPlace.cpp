#include "lib/file/fileLockPlace.h"

#include "lib/file/file.h"
#include "lib/misc/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <cerrno>
#include <cstring>
#include <string_view>

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

int FileLockPlace_MakeDirectory(const char *path)
{
   const ClearedMask cleared;
   return mkdir(path, 0777) == 0 ? 0 : errno;
}

int FileLockPlace_Status(const FileLockPlace &place, const char *name, struct stat *status)
{
   const Owned<char> path = FileLockPlace_Path(place, name);
   return lstat(path.get(), status) == 0 ? 0 : errno;
}

void FileLockPlace_RemoveDirectory(const FileLockPlace &place)
{
   const int savedErrno = errno;
   rmdir(place.directory.get());
   errno = savedErrno;
}

int FileLockRemoveLockingFile(const FileLockPlace &place, const char *name)
{
   const Owned<char> path = FileLockPlace_Path(place, name);
   const int error = FileDeletion(path.get(), false);

   if (error == 0 || error == ENOENT) {
      return 0;
   }
   Log("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile", path.get(), strerror(error));
   return error;
}
