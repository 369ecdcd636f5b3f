#include "daemon/serviceHandshake.h"

#include "lib/public/program.h"
#include "platform/descriptorMessage.h"
#include "platform/descriptors.h"
#include "platform/eventQueue.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* Room for the address of a local-domain socket. */
constexpr socklen_t PEER_ADDRESS_SIZE = 106;

uint8_t sMessageByte = 0;

} // namespace

int ServiceImplAccept(int listener)
{
   alignas(struct sockaddr) char address[PEER_ADDRESS_SIZE];
   socklen_t length = sizeof address;

   const int connection = Descriptors_Accept(listener, reinterpret_cast<struct sockaddr *>(address), &length);
   if (connection == -1 && errno != EAGAIN && errno != EWOULDBLOCK) {
      Warning("%s: accept errno %d.\n", "ServiceImplOnNewClient", errno);
   }
   return connection;
}

bool ServiceImplSetBlockingState(int fd, bool blocking)
{
   static constexpr char tag[] = "ServiceImplSetBlockingState";

   const int flags = fcntl(fd, F_GETFL);
   if (flags == -1) {
      Warning("%s: fcntl get errno %d.\n", tag, errno);
      return false;
   }
   const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
   if (fcntl(fd, F_SETFL, wanted) == -1) {
      Warning("%s: fcntl set errno %d.\n", tag, errno);
      return false;
   }
   return true;
}

bool ServiceImplWriteOne(int fd, uint8_t byte)
{
   if (write(fd, &byte, 1) != -1) {
      return true;
   }
   if (errno != EPIPE) {
      Warning("%s: write errno %d.\n", "ServiceImplWriteOne", errno);
   }
   return false;
}

bool ServiceImplGreet(int fd)
{
   return ServiceImplWriteOne(fd, sMessageByte);
}

ServiceImplReadResult ServiceImplReadOne(int fd, uint8_t *byte)
{
   const ssize_t length = read(fd, byte, 1);
   if (length == -1) {
      Warning("%s: read errno %d.\n", "ServiceImplReadOne", errno);
      return ServiceImplReadResult::Error;
   }
   return length == 0 ? ServiceImplReadResult::EndOfFile : ServiceImplReadResult::Byte;
}

bool ServiceImplRecvFd(int fd, int *receivedFd)
{
   static constexpr char tag[] = "ServiceImplRecvFd";

   switch (DescriptorMessage_Receive(fd, &sMessageByte, receivedFd)) {
   case DescriptorMessageResult::Received:
      return true;
   case DescriptorMessageResult::End:
      return false;
   case DescriptorMessageResult::Failed:
      Warning("%s: recvmsg errno %d.\n", tag, errno);
      return false;
   case DescriptorMessageResult::Refused:
      Warning("%s: Unexpected message.\n", tag);
      return false;
   }
   return false;
}

bool ServiceImplSendFd(int fd, int fdToSend)
{
   if (DescriptorMessage_Send(fd, &sMessageByte, fdToSend)) {
      return true;
   }
   if (errno != EPIPE) {
      Warning("%s: sendmsg errno %d.\n", "ServiceImplSendFd", errno);
   }
   return false;
}

bool ServiceImplClose(int *fd, bool *ok)
{
   if (*fd == -1) {
      return true;
   }
   EventQueue_Forget(*fd);
   const bool closed = close(*fd) == 0;
   if (!closed) {
      Warning("%s: close %d errno %d.\n", "ServiceImplClose", *fd, errno);
      if (ok != nullptr) {
         *ok = false;
      }
   }
   *fd = -1;
   return closed;
}
