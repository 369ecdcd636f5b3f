#include "tools/toolSocket.h"

#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "platform/localStream.h"

#include <climits>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr char SOCKET_NAME[] = "/socket";

/* A new folder under base with a name of its own; null if there can be none, or none that leaves room for the
   socket's name in an address. */
Owned<char> ToolSocketMakeFolder(const char *base)
{
   if (base == nullptr || base[0] != '/') {
      return nullptr;
   }
   Owned<char> folder(Str_SafeAsprintf(nullptr, "%s/tessel-XXXXXX", base));
   if (strlen(folder.get()) + sizeof SOCKET_NAME > sizeof(sockaddr_un::sun_path) ||
       mkdtemp(folder.get()) == nullptr) {
      return nullptr;
   }
   return folder;
}

bool ToolSocketChoosePlace(ToolSocket *made)
{
   made->folder = ToolSocketMakeFolder(getenv("XDG_RUNTIME_DIR"));
   if (made->folder == nullptr) {
      made->folder = ToolSocketMakeFolder("/tmp");
   }
   if (made->folder == nullptr) {
      Warning("cannot make a folder for the socket in /tmp: %s\n", strerror(errno));
      return false;
   }
   made->path.reset(Str_SafeAsprintf(nullptr, "%s%s", made->folder.get(), SOCKET_NAME));
   return true;
}

/* bind takes the permissions from the process. */
bool ToolSocketBind(int listener, const struct sockaddr_un &address)
{
   const mode_t before = umask(S_IRWXG | S_IRWXO);
   const bool bound =
       bind(listener, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
   umask(before);
   return bound;
}

bool ToolSocketListen(ToolSocket *made)
{
   struct sockaddr_un address = {};
   const size_t length = strlen(made->path.get());

   if (length >= sizeof address.sun_path) {
      errno = ENAMETOOLONG;
      return false;
   }
   address.sun_family = AF_UNIX;
   memcpy(address.sun_path, made->path.get(), length);
   made->listener.reset(LocalStream_Socket());
   return made->listener.get() != -1 && ToolSocketBind(made->listener.get(), address) &&
          lstat(made->path.get(), &made->made) == 0 && listen(made->listener.get(), SOMAXCONN) == 0;
}

bool ToolSocketIsOurs(const ToolSocket *made)
{
   struct stat found;

   return made->made.st_ino != 0 && lstat(made->path.get(), &found) == 0 && S_ISSOCK(found.st_mode) &&
          found.st_ino == made->made.st_ino && found.st_dev == made->made.st_dev;
}

} // namespace

char *ToolSocket_AbsolutePath(const char *path)
{
   char folder[PATH_MAX];

   if (path[0] == '/') {
      return Util_SafeStrdup(path);
   }
   if (getcwd(folder, sizeof folder) == nullptr) {
      Warning("cannot tell the current folder: %s\n", strerror(errno));
      return nullptr;
   }
   return Str_SafeAsprintf(nullptr, "%s/%s", folder, path);
}

bool ToolSocket_Open(ToolSocket *made, const char *path)
{
   memset(&made->made, 0, sizeof made->made);
   if (path != nullptr) {
      made->path.reset(ToolSocket_AbsolutePath(path));
   } else if (!ToolSocketChoosePlace(made)) {
      return false;
   }
   if (made->path == nullptr) {
      return false;
   }
   if (!ToolSocketListen(made)) {
      Warning("cannot make the socket %s: %s\n", made->path.get(), strerror(errno));
      ToolSocket_Remove(made);
      return false;
   }
   return true;
}

void ToolSocket_Remove(ToolSocket *made)
{
   if (made->path != nullptr && ToolSocketIsOurs(made)) {
      unlink(made->path.get());
   }
   if (made->folder != nullptr) {
      rmdir(made->folder.get());
   }
   made->path.reset();
   made->folder.reset();
}
