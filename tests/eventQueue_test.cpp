#include "platform/eventQueue.h"

#include "tests/support/daemonHarness.h"

namespace {

int32_t First(void *, const QueueEvent *)
{
   return 1;
}

int32_t Second(void *, const QueueEvent *)
{
   return 2;
}

TEST(EventQueue, GivesTheNewHandlerToADescriptorThatIsAddedAgain)
{
   const OwnedDescriptor queue(EventQueue_Create());
   Pipe pipe;
   QueueEvent event = {};
   ASSERT_TRUE(EventQueue_AddReadSource(queue.get(), pipe.reader.get(), First));
   ASSERT_TRUE(EventQueue_AddReadSource(queue.get(), pipe.reader.get(), Second));
   pipe.writer.reset();
   ASSERT_TRUE(EventQueue_Wait(queue.get(), &event));
   EXPECT_EQ(event.descriptor, pipe.reader.get());
   EXPECT_EQ(event.handler, Second);
}

} // namespace
