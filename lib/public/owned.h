#ifndef TESSEL_LIB_PUBLIC_OWNED_H
#define TESSEL_LIB_PUBLIC_OWNED_H

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

/* Frees a malloc'ed block and leaves errno as it was, so that cleanup on the way out of a failed routine never
   hides the reason from the caller. */
struct FreeKeepingErrno {
   void operator()(void *block) const
   {
      const int saved = errno;
      std::free(block);
      errno = saved;
   }
};

/* Owner of a malloc'ed block inside a routine; release() hands it to the caller of the routine. */
template <typename T> using Owned = std::unique_ptr<T, FreeKeepingErrno>;

/* Owner of a descriptor inside a routine. Closes it at the end of the scope, errno kept; -1 owns nothing. */
class OwnedDescriptor {
 public:
   explicit OwnedDescriptor(int fd = -1) : fd_(fd)
   {
   }

   OwnedDescriptor(OwnedDescriptor &&other) noexcept : fd_(other.release())
   {
   }

   OwnedDescriptor &operator=(OwnedDescriptor &&other) noexcept
   {
      reset(other.release());
      return *this;
   }

   OwnedDescriptor(const OwnedDescriptor &) = delete;
   OwnedDescriptor &operator=(const OwnedDescriptor &) = delete;

   ~OwnedDescriptor()
   {
      reset();
   }

   [[nodiscard]] int get() const
   {
      return fd_;
   }

   [[nodiscard]] int release()
   {
      return std::exchange(fd_, -1);
   }

   void reset(int fd = -1)
   {
      const int saved = errno;
      if (fd_ != -1) {
         close(fd_);
      }
      fd_ = fd;
      errno = saved;
   }

 private:
   int fd_;
};

#endif
