#ifndef TESSEL_DAEMON_SERVICEIMPL_H
#define TESSEL_DAEMON_SERVICEIMPL_H

#include "platform/eventQueue.h"

#include <cstdint>

/* The service runtime: one thread, one event at a time, a count of registered clients. */

/* Starts or stops the services. True for success. */
using ServiceImplAction = bool (*)();

struct ServiceImplCtx {
   ServiceImplAction start; /* Called when the count leaves zero. */
   ServiceImplAction stop;  /* Called when it is back at zero. */
   uint32_t refCount;       /* Registered clients. */
   int32_t kq;              /* The event queue; ends with the process. */
};

/* Routines of type QueueHandler take the ServiceImplCtx as their context. Anything but this as their result ends
   the loop and becomes the exit status of the process. */
constexpr int32_t SERVICE_KEEP_RUNNING = -1;

/* Runs the service until its last client or its launcher has gone: opens the log at logPath, leaves the launcher's
   surroundings, watches the listening socket (argv[1], decimal) and the launcher's descriptor (argv[2]), and
   serves. Blocks. number is for a start-up hook that this build does not have. Returns the exit status of the
   process: 0 for a normal end, 1 for a failure, which has been reported. The descriptors are left to the end
   of the process. */
[[nodiscard]] int32_t ServiceImpl_Daemon(int argc, char **argv, int32_t number, const char *logPath,
                                         ServiceImplAction start, ServiceImplAction stop);

/* Watches the descriptor with the handler. A failure is reported and returned as false. */
[[nodiscard]] bool ServiceImplAddReadSource(const ServiceImplCtx *ctx, int descriptor, QueueHandler handler);

/* QueueHandler for the listening socket: takes one client through the handshake. Ends the loop, with 1, only if the
   connection cannot be closed. */
int32_t ServiceImplOnNewClient(void *context, const QueueEvent *event);

#endif
