#include "daemon/serviceHandshake.h"

#include "daemon/serviceImpl.h"
#include "lib/public/program.h"
#include "platform/descriptorMessage.h"
#include "platform/descriptors.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* Room for the address of a local-domain socket. */
constexpr socklen_t PEER_ADDRESS_SIZE = 106;

/* The data byte of the last descriptor message that arrived, and the first byte that the next client is sent. */
uint8_t sMessageByte = 0;

/* -1 if there is none; only unusual reasons are reported. */
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

/* A descriptor that cannot be watched is left open on purpose: nobody could say when its client lets go. */
char ServiceImplRegister(ServiceImplCtx *ctx, int clientFd)
{
   if (!ServiceImplAddReadSource(ctx, clientFd, ServiceImplUnref)) {
      return SERVICE_REPLY_REFUSED;
   }
   return ServiceImplRef(ctx, clientFd);
}

void ServiceImplHandshake(ServiceImplCtx *ctx, int connection)
{
   int clientFd = -1;

   if (!ServiceImplSetBlockingState(connection, true) || !ServiceImplWriteOne(connection, sMessageByte) ||
       !ServiceImplRecvFd(connection, &clientFd)) {
      return;
   }
   const char reply = ServiceImplRegister(ctx, clientFd);
   /* A client that did not wait for its answer is registered all the same: its descriptor tells when it goes. */
   [[maybe_unused]] const bool answered = ServiceImplWriteOne(connection, static_cast<uint8_t>(reply));
}

} // namespace

int32_t ServiceImplOnNewClient(void *context, const QueueEvent *event)
{
   int connection = ServiceImplAccept(event->descriptor);

   if (connection != -1) {
      ServiceImplHandshake(static_cast<ServiceImplCtx *>(context), connection);
   }
   return ServiceImplClose(&connection, nullptr) ? SERVICE_KEEP_RUNNING : 1;
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
