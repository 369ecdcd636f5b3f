#include "platform/eventQueue.h"

#include <cstddef>
#include <sys/event.h>
#include <sys/time.h>
#include <sys/types.h>

namespace {

static_assert(sizeof(QueueHandler) == sizeof(void *), "a handler travels in the event's user data");

/* The kernel fixes these. */
static_assert(sizeof(struct kevent) == 32 && offsetof(struct kevent, filter) == 8);
static_assert(offsetof(struct kevent, data) == 16 && offsetof(struct kevent, udata) == 24);
static_assert(EVFILT_READ == -1 && EV_ADD == 1 && NOTE_LOWAT == 1);

} // namespace

/* A queue is never inherited by a child, so there is nothing to close on exec. */
int EventQueue_Create()
{
   return kqueue();
}

bool EventQueue_AddReadSource(int queue, int descriptor, QueueHandler handler)
{
   struct kevent change;

   /* A descriptor of -1 is widened with its sign: the kernel refuses it as not open. */
   EV_SET(&change, static_cast<uintptr_t>(static_cast<intptr_t>(descriptor)), EVFILT_READ, EV_ADD, NOTE_LOWAT,
          1, reinterpret_cast<void *>(handler));
   return kevent(queue, &change, 1, nullptr, 0, nullptr) != -1;
}

bool EventQueue_Wait(int queue, QueueEvent *event)
{
   struct kevent ready;

   if (kevent(queue, nullptr, 0, &ready, 1, nullptr) == -1) {
      return false;
   }
   event->descriptor = static_cast<int>(ready.ident);
   event->handler = reinterpret_cast<QueueHandler>(ready.udata);
   return true;
}

/* A closed descriptor leaves the queue by itself. */
void EventQueue_Forget([[maybe_unused]] int descriptor)
{
}
