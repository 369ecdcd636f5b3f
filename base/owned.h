#ifndef TESSEL_BASE_OWNED_H
#define TESSEL_BASE_OWNED_H

#include "base/errno.h"

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

/* Owners of what a routine holds until it returns. Each releases at the end of its scope and leaves errno as it was, so
   that cleanup on the way out of a failed routine never hides the reason from the caller. */

/* Calls release with errno kept. */
template <auto release> struct ReleaseKeepingErrno {
   template <typename T> void operator()(T *held) const
   {
      const KeptErrno kept;
      static_cast<void>(release(held));
   }
};

/* A malloc'ed block; release() hands it to the caller of the routine. */
template <typename T> using Owned = std::unique_ptr<T, ReleaseKeepingErrno<std::free>>;

/* A stream. Closing it says nothing of what could not be written: who writes closes it by hand, through release(). */
using OwnedStream = std::unique_ptr<FILE, ReleaseKeepingErrno<std::fclose>>;

/* An open directory. */
using OwnedDirectory = std::unique_ptr<DIR, ReleaseKeepingErrno<closedir>>;

/* A descriptor; -1 owns nothing. */
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
      const KeptErrno kept;
      if (fd_ != -1) {
         close(fd_);
      }
      fd_ = fd;
   }

 private:
   int fd_;
};

#endif
