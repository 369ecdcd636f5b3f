/* The leanest server of the handshake: no log, no actions, no checks, events taken in batches, nothing closed but
   what must be. The peer that the daemon's runtime is measured against. Argument: the listening socket. */

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

void Serve(int queue, int listener)
{
   char byte = 0;
   alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
   struct iovec data = {.iov_base = &byte, .iov_len = 1};
   struct msghdr message = {};
   int passed;

   const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
   if (connection == -1) {
      return;
   }
   message.msg_iov = &data;
   message.msg_iovlen = 1;
   message.msg_control = control;
   message.msg_controllen = sizeof control;
   if (write(connection, &byte, 1) == 1 && recvmsg(connection, &message, MSG_CMSG_CLOEXEC) == 1 &&
       CMSG_FIRSTHDR(&message) != nullptr) {
      memcpy(&passed, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof passed);
      struct epoll_event event = {.events = EPOLLIN, .data = {.fd = passed}};
      epoll_ctl(queue, EPOLL_CTL_ADD, passed, &event);
      byte = '1';
      [[maybe_unused]] const ssize_t written = write(connection, &byte, 1);
   }
   close(connection);
}

} // namespace

int main(int argc, char **argv)
{
   if (argc != 3) {
      return 1;
   }
   const int listener = atoi(argv[1]);
   const int launcher = atoi(argv[2]);
   const int queue = epoll_create1(EPOLL_CLOEXEC);
   struct epoll_event events[64];
   for (const int watched : {listener, launcher}) {
      events[0] = {.events = EPOLLIN, .data = {.fd = watched}};
      epoll_ctl(queue, EPOLL_CTL_ADD, watched, &events[0]);
   }
   for (;;) {
      const int count = epoll_wait(queue, events, 64, -1);
      for (int i = 0; i < count; i++) {
         const int ready = events[i].data.fd;
         if (ready == listener) {
            Serve(queue, listener);
         } else if (ready == launcher) {
            return 0;
         } else {
            close(ready);
         }
      }
   }
}
