#include "daemon/serviceImpl.h"

#include "daemon/serviceHandshake.h"
#include "daemon/serviceLog.h"
#include "daemon/servicePrivilege.h"
#include "daemon/serviceProcess.h"
#include "lib/misc/host/hostinfo.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int32_t EXIT_NORMAL = 0;
constexpr int32_t EXIT_FAILED = 1;

void ServiceImplOpenLog(const char *logPath)
{
   const PrivilegeBracket raised;
   ServiceImpl_LogOpen(logPath);
}

void ServiceImplLogProcess()
{
   static constexpr char tag[] = "ServiceImpl_Daemon";

   Log("%s: PID %u\n", tag, static_cast<unsigned int>(getpid()));
   const int32_t rosetta = Hostinfo_RosettaState();
   if (rosetta < 0) {
      Warning("%s: Cannot get process Rosetta attribute.\n", tag);
   } else {
      Log("%s: Running as %s process.\n", tag, rosetta != 0 ? "Rosetta" : "Native");
   }
}

/* The launcher has most likely exited. Clients are served to the end without it. */
int32_t ServiceImplOnLauncherEvent(void *context, const QueueEvent *event)
{
   const auto *ctx = static_cast<const ServiceImplCtx *>(context);
   int launcher = event->descriptor;

   if (!ServiceImplClose(&launcher, nullptr)) {
      return EXIT_FAILED;
   }
   return ctx->refCount != 0 ? SERVICE_KEEP_RUNNING : EXIT_NORMAL;
}

/* Counts a client whose descriptor is watched already; the first one starts the services. Gives the byte to answer. */
char ServiceImplRef(ServiceImplCtx *ctx, int clientFd)
{
   static constexpr char tag[] = "ServiceImplRef";

   if (ctx->refCount == 0) {
      Log("%s: Before start().\n", tag);
      const bool started = ctx->start();
      Log("%s: After start().\n", tag);
      if (!started) {
         ServiceImplClose(&clientFd, nullptr);
         return SERVICE_REPLY_REFUSED;
      }
   }
   ctx->refCount++;
   return SERVICE_REPLY_REGISTERED;
}

/* A client's descriptor is readable: it has let go, whatever there is to read. */
int32_t ServiceImplUnref(void *context, const QueueEvent *event)
{
   static constexpr char tag[] = "ServiceImplUnref";
   auto *ctx = static_cast<ServiceImplCtx *>(context);
   int client = event->descriptor;

   if (!ServiceImplClose(&client, nullptr)) {
      return EXIT_FAILED;
   }
   if (--ctx->refCount != 0) {
      return SERVICE_KEEP_RUNNING;
   }
   Log("%s: Before stop().\n", tag);
   const bool stopped = ctx->stop();
   Log("%s: After stop().\n", tag);
   return stopped ? EXIT_NORMAL : EXIT_FAILED;
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

   if (!ServiceImplSetBlockingState(connection, true) || !ServiceImplGreet(connection) ||
       !ServiceImplRecvFd(connection, &clientFd)) {
      return;
   }
   const char reply = ServiceImplRegister(ctx, clientFd);
   /* A client that did not wait for its answer is registered all the same: its descriptor tells when it goes. */
   [[maybe_unused]] const bool answered = ServiceImplWriteOne(connection, static_cast<uint8_t>(reply));
}

/* The launcher is watched before the socket: a launcher that is already gone ends the process even if the socket
   is of no use. */
bool ServiceImplWatch(const ServiceImplCtx *ctx, int listener, int launcher)
{
   return ServiceImplAddReadSource(ctx, launcher, ServiceImplOnLauncherEvent) &&
          ServiceImplSetBlockingState(listener, false) &&
          ServiceImplAddReadSource(ctx, listener, ServiceImplOnNewClient);
}

/* One event at a time: a handler may close a descriptor that a second event of a batch would name. */
int32_t ServiceImplDaemon(ServiceImplCtx *ctx, int listener, int launcher)
{
   static constexpr char tag[] = "ServiceImplDaemon";
   QueueEvent event;

   ctx->kq = EventQueue_Create();
   if (ctx->kq == -1) {
      Warning("%s: kqueue errno %d.\n", tag, errno);
      return EXIT_FAILED;
   }
   if (!ServiceImplWatch(ctx, listener, launcher)) {
      return EXIT_FAILED;
   }
   for (;;) {
      if (!EventQueue_Wait(ctx->kq, &event)) {
         if (errno == EINTR) {
            continue;
         }
         Warning("%s: kevent errno %d.\n", tag, errno);
         return EXIT_FAILED;
      }
      const int32_t status = event.handler(ctx, &event);
      if (status != SERVICE_KEEP_RUNNING) {
         Log("%s: Exiting with code %d.\n", tag, status);
         return status;
      }
   }
}

} // namespace

bool ServiceImplAddReadSource(const ServiceImplCtx *ctx, int descriptor, QueueHandler handler)
{
   if (!EventQueue_AddReadSource(ctx->kq, descriptor, handler)) {
      Warning("%s: kevent errno %d.\n", "ServiceImplAddReadSource", errno);
      return false;
   }
   return true;
}

int32_t ServiceImplOnNewClient(void *context, const QueueEvent *event)
{
   int connection = ServiceImplAccept(event->descriptor);

   if (connection != -1) {
      ServiceImplHandshake(static_cast<ServiceImplCtx *>(context), connection);
   }
   return ServiceImplClose(&connection, nullptr) ? SERVICE_KEEP_RUNNING : EXIT_FAILED;
}

int32_t ServiceImpl_Daemon(int argc, char **argv, [[maybe_unused]] int32_t number, const char *logPath,
                           ServiceImplAction start, ServiceImplAction stop)
{
   ServiceImplCtx ctx = {.start = start, .stop = stop, .refCount = 0, .kq = -1};

   ServiceImplOpenLog(logPath);
   ServiceProcess_LeaveLauncher();
   ServiceImplLogProcess();
   if (argc != 3) {
      Warning("Invalid number of arguments.\n");
      return EXIT_FAILED;
   }
   /* Text that is not a number counts as descriptor 0: the launcher is trusted to know what it passes. */
   return ServiceImplDaemon(&ctx, atoi(argv[1]), atoi(argv[2])); // NOLINT(cert-err34-c)
}
