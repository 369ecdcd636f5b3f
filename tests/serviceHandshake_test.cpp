#include "daemon/serviceHandshake.h"

#include "daemon/serviceImpl.h"
#include "daemon/servicePrivilege.h"
#include "tests/support/daemonHarness.h"

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* A connected pair of sockets, and the log of what is said about them. */
class ServiceHandshake : public testing::Test {
 protected:
   ServiceHandshake()
   {
      signal(SIGPIPE, SIG_IGN);
      int ends[2];
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
      daemon_.reset(ends[0]);
      client_.reset(ends[1]);
   }

   OwnedDescriptor daemon_;
   OwnedDescriptor client_;
   const CapturedLog log_;
};

TEST_F(ServiceHandshake, CarriesADescriptorThatIsClosedOnExec)
{
   Pipe pipe;
   int received = -1;
   ASSERT_TRUE(ServiceImplSendFd(client_.get(), pipe.reader.get()));
   ASSERT_TRUE(ServiceImplRecvFd(daemon_.get(), &received));
   const OwnedDescriptor owned(received);
   EXPECT_NE(fcntl(received, F_GETFD) & FD_CLOEXEC, 0);
   char byte;
   pipe.writer.reset();
   EXPECT_EQ(read(received, &byte, 1), 0);
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(ServiceHandshake, PeerThatHangsUpIsNoError)
{
   int received = -2;
   uint8_t byte = 7;
   ASSERT_TRUE(ServiceImplWriteOne(daemon_.get(), 0));
   client_.reset();
   EXPECT_FALSE(ServiceImplRecvFd(daemon_.get(), &received));
   EXPECT_EQ(ServiceImplReadOne(daemon_.get(), &byte), ServiceImplReadResult::EndOfFile);
   EXPECT_EQ(byte, 7);
   EXPECT_FALSE(ServiceImplWriteOne(daemon_.get(), 0));
   EXPECT_FALSE(ServiceImplSendFd(daemon_.get(), STDIN_FILENO));
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(ServiceHandshake, EveryFailureIsReportedByTheRoutineThatSawIt)
{
   int received = -2;
   int closed = 9999;
   bool ok = true;
   uint8_t byte = 0;
   EXPECT_FALSE(ServiceImplSetBlockingState(9999, true));
   EXPECT_FALSE(ServiceImplWriteOne(9999, 0));
   EXPECT_EQ(ServiceImplReadOne(9999, &byte), ServiceImplReadResult::Error);
   EXPECT_FALSE(ServiceImplRecvFd(9999, &received));
   EXPECT_FALSE(ServiceImplSendFd(9999, 0));
   EXPECT_FALSE(ServiceImplClose(&closed, &ok));
   EXPECT_EQ(closed, -1);
   EXPECT_FALSE(ok);
   EXPECT_TRUE(ServiceImplClose(&closed, &ok));
   EXPECT_FALSE(ok) << "a success never clears an earlier failure";
   const std::string number = std::to_string(EBADF) + ".\n";
   EXPECT_EQ(log_.Text(), "Warning: ServiceImplSetBlockingState: fcntl get errno " + number +
                              "Warning: ServiceImplWriteOne: write errno " + number +
                              "Warning: ServiceImplReadOne: read errno " + number +
                              "Warning: ServiceImplRecvFd: recvmsg errno " + number +
                              "Warning: ServiceImplSendFd: sendmsg errno " + number +
                              "Warning: ServiceImplClose: close 9999 errno " + number);
}

TEST_F(ServiceHandshake, GoesOnWhereThereIsNoClient)
{
   const ScratchFolder folder;
   const OwnedDescriptor listener = ListenAt(folder.Path("socket"));
   ASSERT_TRUE(ServiceImplSetBlockingState(listener.get(), false));
   for (const int socket : {listener.get(), daemon_.get()}) {
      const QueueEvent event = {.descriptor = socket, .handler = ServiceImplOnNewClient};
      EXPECT_EQ(ServiceImplOnNewClient(nullptr, &event), SERVICE_KEEP_RUNNING);
   }
   EXPECT_EQ(log_.Text(), "Warning: ServiceImplOnNewClient: accept errno 22.\n") << "of what is no listener";
}

TEST_F(ServiceHandshake, SwitchesBlocking)
{
   ASSERT_TRUE(ServiceImplSetBlockingState(daemon_.get(), false));
   uint8_t byte = 0;
   EXPECT_EQ(ServiceImplReadOne(daemon_.get(), &byte), ServiceImplReadResult::Error);
   EXPECT_EQ(errno, EAGAIN);
   ASSERT_TRUE(ServiceImplSetBlockingState(daemon_.get(), true));
   EXPECT_EQ(fcntl(daemon_.get(), F_GETFL) & O_NONBLOCK, 0);
   ASSERT_TRUE(ServiceImplWriteOne(client_.get(), 0x80));
   EXPECT_EQ(ServiceImplReadOne(daemon_.get(), &byte), ServiceImplReadResult::Byte);
   EXPECT_EQ(byte, 0x80);
}

TEST(ServicePrivilege, SwitchesBetweenTheRealAndTheFirstEffectiveUser)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "only root can have an effective user other than the real one";
   }
   ASSERT_EQ(setresuid(65534, 0, 0), 0);
   ServiceImpl_PrivLower();
   EXPECT_EQ(geteuid(), 65534U);
   {
      const PrivilegeBracket raised;
      EXPECT_EQ(geteuid(), 0U);
      errno = EXDEV;
   }
   EXPECT_EQ(errno, EXDEV) << "the caller reports it after the bracket";
   EXPECT_EQ(geteuid(), 65534U);
   ServiceImpl_PrivRaise();
   ASSERT_EQ(setresuid(0, 0, 0), 0);
}

TEST(ServicePrivilege, ReportsWhatTheSystemRefuses)
{
   EXPECT_EXIT(
       {
          if (geteuid() == 0) {
             setresuid(65534, 65534, 65534);
          }
          LogToStandardError();
          ServiceImpl_PrivRaise(); /* Nothing was lowered: the remembered user is root. */
          _exit(0);
       },
       ::testing::ExitedWithCode(0), "Warning: ServiceImpl_PrivRaise: seteuid errno 1\\.");
}

} // namespace
