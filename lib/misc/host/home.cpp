#include "lib/misc/host/home.h"

#include "base/owned.h"
#include "lib/misc/memory/util.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <unistd.h>

namespace {

constexpr size_t RECORD_SIZE = 1024;

/* Calls lookup, one of the reentrant routines of the user database, with room enough. The user's home directory as a
   new string, or null. */
template <typename Lookup> char *UtilHomeFrom(Lookup lookup)
{
   struct passwd entry;
   struct passwd *found = nullptr;

   for (size_t size = RECORD_SIZE;; size *= 2) {
      const Owned<char> room(static_cast<char *>(Util_SafeMalloc(size)));
      const int error = lookup(&entry, room.get(), size, &found);
      if (error != ERANGE) {
         return error == 0 && found != nullptr ? Util_SafeStrdup(found->pw_dir) : nullptr;
      }
   }
}

char *UtilHomeOfCaller()
{
   const char *home = getenv("HOME");
   if (home != nullptr && home[0] != '\0') {
      return Util_SafeStrdup(home);
   }
   return UtilHomeFrom([](struct passwd *entry, char *room, size_t size, struct passwd **found) {
      return getpwuid_r(getuid(), entry, room, size, found);
   });
}

char *UtilHomeOf(const char *user)
{
   return UtilHomeFrom([user](struct passwd *entry, char *room, size_t size, struct passwd **found) {
      return getpwnam_r(user, entry, room, size, found);
   });
}

} // namespace

char *Util_ExpandHome(const char *path)
{
   if (path == nullptr || path[0] != '~') {
      return Util_SafeStrdup(path);
   }
   const size_t nameLength = strcspn(path + 1, "/");
   const Owned<char> name(Util_SafeStrndup(path + 1, nameLength));
   const Owned<char> home(nameLength == 0 ? UtilHomeOfCaller() : UtilHomeOf(name.get()));

   /* Null for an unknown home. */
   return Unicode_Join(home.get(), path + 1 + nameLength, nullptr);
}
