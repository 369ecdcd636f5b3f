#include "platform/kernelControl.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

/* The stand-in for kernel controls: a stream socket named after the control in a folder that only root can make.
   The place is fixed, so that nobody can send a privileged program elsewhere. A stream, because its end can
   be seen when the other side closes it. */

namespace {

constexpr std::string_view CONTROL_DIRECTORY = "/run/tessel-kext/";

bool KernelControlAddress(const KernelControlInfo *info, struct sockaddr_un *address)
{
   const size_t nameLength = strnlen(info->name, sizeof info->name);

   memset(address, 0, sizeof *address);
   address->sun_family = AF_UNIX;
   if (CONTROL_DIRECTORY.size() + nameLength >= sizeof address->sun_path) {
      errno = ENAMETOOLONG;
      return false;
   }
   CONTROL_DIRECTORY.copy(address->sun_path, CONTROL_DIRECTORY.size());
   memcpy(address->sun_path + CONTROL_DIRECTORY.size(), info->name, nameLength);
   return true;
}

} // namespace

int KernelControl_Open()
{
   return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

bool KernelControl_Lookup([[maybe_unused]] int control, KernelControlInfo *info)
{
   struct sockaddr_un address;
   struct stat attributes;

   if (!KernelControlAddress(info, &address) || stat(address.sun_path, &attributes) == -1) {
      return false;
   }
   info->id = static_cast<uint32_t>(attributes.st_ino);
   return true;
}

bool KernelControl_Connect(int control, const KernelControlInfo *info)
{
   struct sockaddr_un address;

   return KernelControlAddress(info, &address) &&
          connect(control, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
}
