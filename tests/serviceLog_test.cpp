#include "daemon/serviceLog.h"

#include "tests/support/testSupport.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/* What the work writes to standard output, in a process of its own. */
std::string OutputOf(void (*work)())
{
   int ends[2];
   std::string output;
   char part[256];

   EXPECT_EQ(pipe(ends), 0);
   const pid_t child = fork();
   if (child == 0) {
      dup2(ends[1], STDOUT_FILENO);
      work();
      _exit(0);
   }
   close(ends[1]);
   for (ssize_t n; (n = read(ends[0], part, sizeof part)) > 0;) {
      output.append(part, static_cast<size_t>(n));
   }
   close(ends[0]);
   return output;
}

/* Stands first: nothing in this program may have opened a log before it. */
TEST(Log, GoesToStandardOutputUntilALogIsOpened)
{
   const std::string line = OutputOf([] { Log("%s: early\n", "tag"); });
   EXPECT_EQ(line.substr(23), "| tag: early\n");
}

TEST(Log, WritesTimestampTagAndWhatFitsOfTheText)
{
   const CapturedLog log;
   const std::string longest(1023, 'x');
   const time_t before = time(nullptr);
   errno = EXDEV;
   Log("%s: PID %u\n", "ServiceImpl_Daemon", 7U);
   struct tm written = {};
   ASSERT_NE(strptime(log.Raw().c_str(), "%Y-%m-%dT%H:%M:%S", &written), nullptr);
   EXPECT_GE(timegm(&written), before);
   EXPECT_LE(timegm(&written), time(nullptr));
   errno = EXDEV;
   Warning("%s: kevent errno %d.\n", "ServiceImplDaemon", 9);
   Log("%s", longest.c_str());
   Warning("%sx", longest.c_str());
   EXPECT_EQ(errno, EXDEV);
   Log("next\n");
   EXPECT_EQ(log.Text(), "ServiceImpl_Daemon: PID 7\nWarning: ServiceImplDaemon: kevent errno 9.\n" +
                             longest + "Warning: next\n");
}

TEST(LogOpen, EmptiesTheFileAndCreatesItReadableForAll)
{
   const ScratchFolder folder;
   const std::string path = folder.Path("log");
   struct stat attributes;
   const mode_t mask = umask(0);

   ServiceImpl_LogOpen(path.c_str());
   Log("first\n");
   ServiceImpl_LogOpen(path.c_str());
   Log("second\n");
   umask(mask);
   ASSERT_EQ(stat(path.c_str(), &attributes), 0);
   EXPECT_EQ(attributes.st_mode & 07777, 0644U);
   EXPECT_EQ(ReadFile(path).substr(25), "second\n");
}

TEST(LogOpen, FailureTurnsLoggingOff)
{
   const std::string output = OutputOf([] {
      int touched = 0;
      ServiceImpl_LogOpen("/no/such/folder/log");
      Log("text%n", &touched);
      Warning("text\n");
      if (touched != 0) {
         dprintf(STDOUT_FILENO, "formatted\n");
      }
   });
   EXPECT_EQ(output, "");
}

TEST(Panic, EndsTheProcessWithStatusOneThroughExit)
{
   EXPECT_PANIC(
       {
          atexit([] { dprintf(STDERR_FILENO, "handler ran\n"); });
          Panic("%s:%d broken\n", "module", 7);
       },
       "module:7 broken\nhandler ran");
   EXPECT_EXIT(
       {
          ServiceImpl_LogOpen("/no/such/folder/log");
          Panic("lost\n");
       },
       ::testing::ExitedWithCode(1), "^$");
}

} // namespace
