#ifndef TESSEL_PLATFORM_EVENTQUEUE_H
#define TESSEL_PLATFORM_EVENTQUEUE_H

#include <cstdint>

struct QueueEvent;

/* Called for one event. -1 keeps the caller's loop going; the loop belongs to the caller, not to the queue. */
using QueueHandler = int32_t (*)(void *context, const QueueEvent *event);

struct QueueEvent {
   int descriptor;
   QueueHandler handler;
};

/* A new queue of descriptors to watch, closed on exec, or -1 with errno set. It is a descriptor and lives until
   it is closed. */
[[nodiscard]] int EventQueue_Create();

/* Watches the descriptor: it is reported, with its handler, for as long as at least one byte can be read from it
   or it is at its end or broken. A descriptor that is already watched takes the new handler. False with errno
   set; EBADF for a descriptor that is not open. On Linux regular files, directories and the like are refused
   with EPERM. */
[[nodiscard]] bool EventQueue_AddReadSource(int queue, int descriptor, QueueHandler handler);

/* Waits without limit and fills *event with one event. False with errno set; EINTR is the caller's to handle. */
[[nodiscard]] bool EventQueue_Wait(int queue, QueueEvent *event);

/* To be called before every close of a descriptor that may be watched: nothing is reported for it any more, even
   if another process still holds the same open file. Does nothing for one that is not watched. Keeps errno.
 */
void EventQueue_Forget(int descriptor);

#endif
