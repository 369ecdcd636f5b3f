#include "lib/misc/host/posixInt.h"

#include "base/owned.h"
#include "lib/misc/memory/util.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t LINK_BUFFER_SIZE = 2048;
constexpr size_t LINK_BUFFER_STEP = 1024;
constexpr size_t REAL_PATH_SIZE = 1024;

/* The path in the current encoding, in *converted; null for null. False with ERANGE; otherwise errno is kept. */
bool PosixConvertPath(const char *path, Owned<char> *converted)
{
   {
      const KeptErrno kept;
      converted->reset(static_cast<char *>(Unicode_GetAllocBytes(path, ENCODING_DEFAULT)));
   }
   if (path != nullptr && *converted == nullptr) {
      errno = ERANGE;
      return false;
   }
   return true;
}

/* The text of a link as the file system holds it, ended by NUL; null with errno set. */
Owned<char> PosixReadLinkBytes(const char *path)
{
   for (size_t size = LINK_BUFFER_SIZE;; size += LINK_BUFFER_STEP) {
      Owned<char> buffer(static_cast<char *>(Util_SafeMalloc(size)));
      const ssize_t length = readlink(path, buffer.get(), size);
      if (length == -1) {
         return nullptr;
      }
      /* One that fills the buffer may have been cut. */
      if (static_cast<size_t>(length) < size) {
         buffer.get()[length] = '\0';
         return buffer;
      }
   }
}

} // namespace

int Posix_EuidAccess(const char * /*path*/, int /*mode*/)
{
   errno = ENOSYS;
   return -1;
}

char *Posix_ReadLink(const char *path)
{
   Owned<char> converted;

   if (!PosixConvertPath(path, &converted)) {
      return nullptr;
   }
   if (converted == nullptr) {
      errno = EFAULT;
      return nullptr;
   }
   const Owned<char> bytes = PosixReadLinkBytes(converted.get());
   if (bytes == nullptr) {
      return nullptr;
   }
   /* Strict, since anyone can make a link: a text with substitutes in it would name something else, and one that
      cannot be converted is no reason to end the process. */
   char *const text = UnicodeAllocInternal(bytes.get(), -1, ENCODING_DEFAULT, true);
   if (text == nullptr) {
      errno = ERANGE;
   }
   return text;
}

char *Posix_RealPath(const char *path)
{
   Owned<char> converted;

   if (!PosixConvertPath(path, &converted)) {
      return nullptr;
   }
   /* Into a block of its own: systems whose paths can be longer would write past the end of a buffer of the size
      allowed here. */
   const Owned<char> resolved(realpath(converted.get(), nullptr));
   if (resolved == nullptr) {
      return nullptr;
   }
   if (strlen(resolved.get()) >= REAL_PATH_SIZE) {
      errno = ENAMETOOLONG;
      return nullptr;
   }
   return Unicode_AllocWithLength(resolved.get(), -1, ENCODING_DEFAULT);
}
