#include "client/tesselclient.h"

#include "base/owned.h"
#include "platform/localStream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

/* Programs in C link this, so it stays clear of whatever needs the C++ run-time library. */

namespace {

constexpr uint8_t REPLY_REGISTERED = '1';
constexpr uint8_t REPLY_REFUSED = '0';

/* The daemon ignores it, but shows it to the next client. */
constexpr uint8_t MESSAGE_BYTE = 0;

struct ClientLimit {
   bool none;
   int64_t endMs; /* On the clock of ClientNowMs. */
};

int64_t ClientNowMs()
{
   struct timespec now;

   clock_gettime(CLOCK_MONOTONIC, &now);
   return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

ClientLimit ClientStartLimit(int maxWaitMs)
{
   return {.none = maxWaitMs <= TESSEL_NO_LIMIT, .endMs = ClientNowMs() + maxWaitMs};
}

/* What is left, never 0, which the calls below would take for something else. False with ETIMEDOUT after the end. */
bool ClientTimeLeft(const ClientLimit &limit, int *leftMs)
{
   const int64_t left = limit.endMs - ClientNowMs();
   if (left <= 0) {
      errno = ETIMEDOUT;
      return false;
   }
   *leftMs = static_cast<int>(std::min<int64_t>(left, INT_MAX));
   return true;
}

/* Waiting for a place in the daemon's queue is limited by the time for sending. */
bool ClientLimitConnect(int stream, const ClientLimit &limit)
{
   int leftMs = 0;

   if (limit.none) {
      return true;
   }
   if (!ClientTimeLeft(limit, &leftMs)) {
      return false;
   }
   struct timeval left;
   left.tv_sec = leftMs / 1000;
   left.tv_usec = static_cast<suseconds_t>(leftMs % 1000) * 1000;
   return setsockopt(stream, SOL_SOCKET, SO_SNDTIMEO, &left, sizeof left) == 0;
}

/* Returns at once without a limit: the read that follows waits as well as this could. */
bool ClientAwaitInput(int stream, const ClientLimit &limit)
{
   struct pollfd wanted = {.fd = stream, .events = POLLIN, .revents = 0};
   int leftMs = 0;

   if (limit.none) {
      return true;
   }
   if (!ClientTimeLeft(limit, &leftMs)) {
      return false;
   }
   const int ready = poll(&wanted, 1, leftMs);
   if (ready == 0) {
      errno = ETIMEDOUT;
   }
   return ready > 0;
}

bool ClientAddress(const char *path, struct sockaddr_un *address)
{
   const size_t length = strlen(path);

   memset(address, 0, sizeof *address);
   address->sun_family = AF_UNIX;
   if (length == 0 || length >= sizeof address->sun_path) {
      errno = length == 0 ? ENOENT : ENAMETOOLONG;
      return false;
   }
   memcpy(address->sun_path, path, length);
   return true;
}

/* A connection attempt that a signal interrupted may have been completed since. */
bool ClientConnect(int stream, const struct sockaddr_un &address, const ClientLimit &limit)
{
   do {
      if (!ClientLimitConnect(stream, limit)) {
         return false;
      }
      if (connect(stream, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0 ||
          errno == EISCONN) {
         return true;
      }
   } while (errno == EINTR);
   return false;
}

/* False with errno 0 at the end of the connection. */
bool ClientReadByte(int stream, const ClientLimit &limit, uint8_t *byte)
{
   ssize_t length = -1;

   do {
      if (ClientAwaitInput(stream, limit)) {
         length = read(stream, byte, 1);
      }
   } while (length == -1 && errno == EINTR);
   if (length == 0) {
      errno = 0;
   }
   return length == 1;
}

bool ClientSend(int stream, int descriptor)
{
   bool sent;

   do {
      sent = LocalStream_SendDescriptor(stream, &MESSAGE_BYTE, descriptor);
   } while (!sent && errno == EINTR);
   return sent;
}

/* The whole conversation. False with errno set, or 0 if the daemon hung up in order. */
bool ClientConverse(const char *path, const ClientLimit &limit, int descriptor, uint8_t *reply)
{
   struct sockaddr_un address;
   uint8_t greeting;

   if (!ClientAddress(path, &address)) {
      return false;
   }
   const OwnedDescriptor stream(LocalStream_Socket());
   return stream.get() != -1 && ClientConnect(stream.get(), address, limit) &&
          ClientReadByte(stream.get(), limit, &greeting) && ClientSend(stream.get(), descriptor) &&
          ClientReadByte(stream.get(), limit, reply);
}

TesselOutcome ClientFailure(int error)
{
   switch (error) {
   case ENOENT:
   case ENOTDIR:
      return TESSEL_NO_SOCKET;
   case ECONNREFUSED:
   case ENOTSOCK:
   case EPROTOTYPE:
      return TESSEL_NOT_LISTENING;
   case EACCES:
   case EPERM:
      return TESSEL_NO_PERMISSION;
   case ENAMETOOLONG:
      return TESSEL_PATH_TOO_LONG;
   case 0:
   case EPIPE:
   case ECONNRESET:
   case ENOTCONN:
      return TESSEL_DAEMON_GONE;
   case EAGAIN:
   case ETIMEDOUT:
      return TESSEL_TIMED_OUT;
   default:
      return TESSEL_SYSTEM_ERROR;
   }
}

TesselOutcome ClientAnswer(uint8_t reply)
{
   switch (reply) {
   case REPLY_REGISTERED:
      return TESSEL_REGISTERED;
   case REPLY_REFUSED:
      return TESSEL_REFUSED;
   default:
      return TESSEL_UNEXPECTED_REPLY;
   }
}

const char *ClientOutcomeText(TesselOutcome outcome)
{
   switch (outcome) {
   case TESSEL_REGISTERED:
      return "registered";
   case TESSEL_REFUSED:
      return "the daemon refused the registration";
   case TESSEL_NO_SOCKET:
      return "there is no socket at the path";
   case TESSEL_NOT_LISTENING:
      return "no daemon listens on the socket";
   case TESSEL_NO_PERMISSION:
      return "no permission to use the socket";
   case TESSEL_PATH_TOO_LONG:
      return "the path is too long for a socket";
   case TESSEL_DAEMON_GONE:
      return "the daemon went away before it answered";
   case TESSEL_UNEXPECTED_REPLY:
      return "the answer is not that of a daemon";
   case TESSEL_TIMED_OUT:
      return "the daemon did not answer in time";
   case TESSEL_SYSTEM_ERROR:
      break;
   }
   return "a system call failed";
}

/* strerror_r comes in two forms: one returns the text, the other a status, with the text in the buffer. */
[[maybe_unused]] const char *ClientErrorText(const char *text, [[maybe_unused]] const char *buffer)
{
   return text;
}

[[maybe_unused]] const char *ClientErrorText(int status, const char *buffer)
{
   return status == 0 ? buffer : "unknown error";
}

struct ClientText {
   char *next;
   size_t room; /* Bytes from next on, that for the NUL not counted. */
};

void ClientAppend(ClientText *text, std::string_view part)
{
   const size_t length = std::min(part.size(), text->room);
   memcpy(text->next, part.data(), length);
   text->next += length;
   text->room -= length;
}

} // namespace

TesselResult TesselClient_RegisterDescriptor(const char *socketPath, int maxWaitMs, int descriptor)
{
   uint8_t reply;

   if (!ClientConverse(socketPath, ClientStartLimit(maxWaitMs), descriptor, &reply)) {
      const int error = errno;
      return {.outcome = ClientFailure(error), .systemError = error};
   }
   return {.outcome = ClientAnswer(reply), .systemError = 0};
}

TesselResult TesselClient_Register(const char *socketPath, int maxWaitMs, int *hold)
{
   int ends[2];

   *hold = -1;
   if (!LocalStream_Pipe(ends)) {
      return {.outcome = TESSEL_SYSTEM_ERROR, .systemError = errno};
   }
   const OwnedDescriptor reader(ends[0]);
   OwnedDescriptor writer(ends[1]);
   const TesselResult result = TesselClient_RegisterDescriptor(socketPath, maxWaitMs, reader.get());
   if (result.outcome == TESSEL_REGISTERED) {
      *hold = writer.release();
   }
   return result;
}

int TesselClient_IsHeld(int hold)
{
   const KeptErrno kept;
   struct pollfd held = {.fd = hold, .events = 0, .revents = 0};

   return hold != -1 && poll(&held, 1, 0) == 0 ? 1 : 0;
}

void TesselClient_LetGo(int *hold)
{
   OwnedDescriptor(std::exchange(*hold, -1)).reset();
}

void TesselClient_Describe(const TesselResult *result, char *text, size_t size)
{
   char buffer[128];

   if (size == 0) {
      return;
   }
   ClientText out = {.next = text, .room = size - 1};
   ClientAppend(&out, ClientOutcomeText(result->outcome));
   if (result->systemError != 0) {
      ClientAppend(&out, " (");
      ClientAppend(&out, ClientErrorText(strerror_r(result->systemError, buffer, sizeof buffer), buffer));
      ClientAppend(&out, ")");
   }
   *out.next = '\0';
}
