#include "daemon/serviceImpl.h"

#include "daemon/serviceHandshake.h"
#include "daemon/serviceLog.h"
#include "daemon/servicePrivilege.h"
#include "lib/misc/host/hostinfo.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int32_t EXIT_NORMAL = 0;
constexpr int32_t EXIT_FAILED = 1;

/* Where a build of the foundation with more modules starts them up. */
void Foundation_StartHook()
{
}

int32_t Foundation_ModuleHook([[maybe_unused]] void *object, [[maybe_unused]] const char *module,
                              [[maybe_unused]] int32_t number)
{
   return -1;
}

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

/* The launcher is watched before the socket: a launcher that is already gone ends the process even if the socket
   is of no use. */
bool ServiceImplWatch(const ServiceImplCtx *ctx, int listener, int launcher)
{
   return ServiceImplAddReadSource(ctx, launcher, ServiceImplOnLauncherEvent) &&
          ServiceImplSetBlockingState(listener, false) &&
          ServiceImplAddReadSource(ctx, listener, ServiceImplOnNewClient);
}

/* One event at a time: a handler may close a descriptor that a second event of a batch would name. */
int32_t ServiceImplLoop(ServiceImplCtx *ctx)
{
   static constexpr char tag[] = "ServiceImplDaemon";
   QueueEvent event;

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

int32_t ServiceImpl_Daemon(int argc, char **argv, int32_t number, const char *logPath,
                           ServiceImplAction start, ServiceImplAction stop)
{
   Foundation_StartHook();
   Foundation_ModuleHook(nullptr, "serviceImpl", number);

   ServiceImplOpenLog(logPath);
   ServiceImplLogProcess();
   if (argc != 3) {
      Warning("Invalid number of arguments.\n");
      return EXIT_FAILED;
   }

   ServiceImplCtx ctx = {.start = start, .stop = stop, .refCount = 0, .kq = EventQueue_Create()};
   if (ctx.kq == -1) {
      Warning("%s: kqueue errno %d.\n", "ServiceImplDaemon", errno);
      return EXIT_FAILED;
   }
   /* Text that is not a number counts as descriptor 0: the launcher is trusted to know what it passes. */
   const int listener = atoi(argv[1]); // NOLINT(cert-err34-c)
   const int launcher = atoi(argv[2]); // NOLINT(cert-err34-c)
   if (!ServiceImplWatch(&ctx, listener, launcher)) {
      return EXIT_FAILED;
   }
   return ServiceImplLoop(&ctx);
}
