#include "platform/eventQueue.h"

#include "tests/support/pipe.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <sys/time.h>
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

   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), ended.reader.get(), Second));
   ended.writer.reset();
   EXPECT_EQ(Next(Second), ended.reader.get());
   EventQueue_Forget(ended.reader.get());

   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), broken.writer.get(), First));
   broken.reader.reset();
   EXPECT_EQ(Next(First), broken.writer.get());
   EventQueue_Forget(broken.writer.get());
}

TEST_F(EventQueue, GivesTheNewHandlerToADescriptorThatIsAddedAgain)
{
   Pipe pipe;
   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), pipe.reader.get(), First));
   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), pipe.reader.get(), Second));
   pipe.writer.reset();
   EXPECT_EQ(Next(Second), pipe.reader.get());
}

TEST_F(EventQueue, ForgetsAnOpenFileThatLivesOnElsewhere)
{
   Pipe kept;
   Pipe other;
   int passed = dup(kept.reader.get());
   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), passed, First));
   kept.writer.reset();
   EXPECT_EQ(Next(First), passed);
   EventQueue_Forget(passed);
   close(passed);

   ASSERT_TRUE(EventQueue_AddReadSource(queue_.get(), other.reader.get(), Second));
   other.writer.reset();
   EXPECT_EQ(Next(Second), other.reader.get()) << "the first file is at its end too, but no longer watched";
}

TEST_F(EventQueue, RefusesWhatIsNotOpen)
{
   EXPECT_FALSE(EventQueue_AddReadSource(queue_.get(), -1, First));
   EXPECT_EQ(errno, EBADF);
   EXPECT_FALSE(EventQueue_AddReadSource(queue_.get(), 9999, First));
   EXPECT_EQ(errno, EBADF);
   errno = EXDEV;
   EventQueue_Forget(-1);
   EventQueue_Forget(123456);
   EXPECT_EQ(errno, EXDEV);
}

TEST_F(EventQueue, LeavesInterruptionsToTheCaller)
{
   struct sigaction action = {};
   struct itimerval soon = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 20000}};
   QueueEvent event = {};
   action.sa_handler = [](int) {};
   sigaction(SIGALRM, &action, nullptr);
   setitimer(ITIMER_REAL, &soon, nullptr);
   EXPECT_FALSE(EventQueue_Wait(queue_.get(), &event));
   EXPECT_EQ(errno, EINTR);
}

} // namespace
