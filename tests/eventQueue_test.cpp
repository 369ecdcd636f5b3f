#include "platform/eventQueue.h"

#include "tests/support/daemonHarness.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

int32_t First(void *, const QueueEvent *)
{
   return 1;
}

int32_t Second(void *, const QueueEvent *)
{
   return 2;
}

class EventQueue : public testing::Test {
 protected:
   /* The descriptor of the next event, which must bear this handler. */
   int Next(QueueHandler handler) const
   {
      QueueEvent event = {};
      EXPECT_TRUE(EventQueue_Wait(queue_.get(), &event));
      EXPECT_EQ(event.handler, handler);
      return event.descriptor;
   }

   const OwnedDescriptor queue_{EventQueue_Create()};
};

TEST_F(EventQueue, ReportsDataEndAndBreakage)
{
   Pipe data;
   Pipe ended;
   Pipe broken;
   ASSERT_EQ(write(data.writer.get(), "x", 1), 1);
   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), data.reader.get(), First));
   EXPECT_EQ(Next(First), data.reader.get());
   EXPECT_EQ(Next(First), data.reader.get()) << "reported for as long as it is readable";
   EventQueue_Forget(data.reader.get());

   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), ended.reader.get(), First));
   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), ended.reader.get(), Second)) << "the new handler holds";
   ended.writer.reset();
   EXPECT_EQ(Next(Second), ended.reader.get());
   EventQueue_Forget(ended.reader.get());

   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), broken.writer.get(), First));
   broken.reader.reset();
   EXPECT_EQ(Next(First), broken.writer.get());
   EventQueue_Forget(broken.writer.get());
}

TEST_F(EventQueue, RefusesWhatCannotBeWatched)
{
   const OwnedDescriptor file(open("/proc/self/exe", O_RDONLY));
   for (const auto &[fd, error] : {std::pair{-1, EBADF}, {9999, EBADF}, {file.get(), EPERM}}) {
      EXPECT_FALSE(EventQueue_AddReadSource(queue_.get(), fd, First));
      EXPECT_EQ(errno, error);
   }
   errno = EXDEV;
   EventQueue_Forget(-1);
   EventQueue_Forget(123456);
   EXPECT_EQ(errno, EXDEV);
}

} // namespace
