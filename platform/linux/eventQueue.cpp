#include "platform/eventQueue.h"

#include "base/errno.h"

#include <bit>
#include <cstdlib>
#include <sys/epoll.h>

/* epoll watches the open file behind a descriptor, not the descriptor. The same open file may live on in another
   process after our close, so interest has to be ended before it; and an event carries one word, too little
   for the descriptor and its handler. Hence a table of what is watched, by descriptor. */

namespace {

struct EventQueueRegistration {
   QueueHandler handler; /* Null: not watched. */
   int queue;
};

EventQueueRegistration *sRegistrations = nullptr;
size_t sRegistrationCount = 0;

bool EventQueueMakeRoom(size_t index)
{
   constexpr size_t minimum = 64;

   if (index < sRegistrationCount) {
      return true;
   }
   const size_t count = index < minimum ? minimum : std::bit_ceil(index + 1);
   auto *grown =
       static_cast<EventQueueRegistration *>(realloc(sRegistrations, count * sizeof(EventQueueRegistration)));
   if (grown == nullptr) {
      return false;
   }
   for (size_t i = sRegistrationCount; i < count; i++) {
      grown[i] = {.handler = nullptr, .queue = -1};
   }
   sRegistrations = grown;
   sRegistrationCount = count;
   return true;
}

} // namespace

int EventQueue_Create()
{
   return epoll_create1(EPOLL_CLOEXEC);
}

bool EventQueue_AddReadSource(int queue, int descriptor, QueueHandler handler)
{
   struct epoll_event event = {};

   event.events = EPOLLIN;
   event.data.fd = descriptor;
   if (epoll_ctl(queue, EPOLL_CTL_ADD, descriptor, &event) == -1 &&
       (errno != EEXIST || epoll_ctl(queue, EPOLL_CTL_MOD, descriptor, &event) == -1)) {
      return false;
   }
   const auto index = static_cast<size_t>(descriptor);
   if (!EventQueueMakeRoom(index)) {
      epoll_ctl(queue, EPOLL_CTL_DEL, descriptor, nullptr);
      errno = ENOMEM;
      return false;
   }
   sRegistrations[index] = {.handler = handler, .queue = queue};
   return true;
}

/* Errors and hang-ups of the descriptor are reported whatever was asked for, and count as readable. A descriptor that
   could not be taken out of the queue may still be heard of; it is nobody's any more. */
bool EventQueue_Wait(int queue, QueueEvent *event)
{
   struct epoll_event ready;

   do {
      if (epoll_wait(queue, &ready, 1, -1) == -1) {
         return false;
      }
      event->descriptor = ready.data.fd;
      event->handler = sRegistrations[ready.data.fd].handler;
   } while (event->handler == nullptr);
   return true;
}

void EventQueue_Forget(int descriptor)
{
   const auto index = static_cast<size_t>(descriptor);

   if (index >= sRegistrationCount || sRegistrations[index].handler == nullptr) {
      return;
   }
   const KeptErrno kept;
   epoll_ctl(sRegistrations[index].queue, EPOLL_CTL_DEL, descriptor, nullptr);
   sRegistrations[index].handler = nullptr;
}
