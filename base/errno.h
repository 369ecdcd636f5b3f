#ifndef TESSEL_BASE_ERRNO_H
#define TESSEL_BASE_ERRNO_H

#include <cerrno>

/* Keeps errno for a scope: what the scope calls may change it, at the end it is what it was at the beginning. */
class KeptErrno {
 public:
   KeptErrno() = default;
   KeptErrno(const KeptErrno &) = delete;
   KeptErrno &operator=(const KeptErrno &) = delete;

   ~KeptErrno()
   {
      errno = value_;
   }

 private:
   int value_ = errno;
};

/* Makes the call, again as long as a signal interrupts it: as long as it returns -1 with EINTR. Not for close, which has
   closed the descriptor by then. */
template <typename Call> [[nodiscard]] auto Uninterrupted(Call call)
{
   auto result = call();
   while (result == -1 && errno == EINTR) {
      result = call();
   }
   return result;
}

#endif
