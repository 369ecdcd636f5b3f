/* A whole life of the daemon, over and over, with another one of its calls of the system failing each time. */

#include "client/tesselclient.h"
#include "tests/support/callFaults.h"
#include "tests/support/daemonHarness.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

int TesselDaemon_Main(int argc, char **argv);

namespace {

namespace fs = std::filesystem;

constexpr uid_t NOBODY = 65534;

/* The lives are dealt out among as many tests, which run side by side. */
constexpr size_t SHARES = 4;

/* For what depends on the order in which the file system has the entries of a folder. */
constexpr int EITHER = -1;

struct Expectation {
   const char *call;
   int first;
   int last;
   int error;
   int status;
   const char *clients;
   const char *logged;
};

constexpr Expectation EXPECTATIONS[] = {
#include "tests/support/daemonFaults.inc"
};

const Expectation *Expected(const CallFault &fault)
{
   const auto *const found =
       std::find_if(std::begin(EXPECTATIONS), std::end(EXPECTATIONS), [&fault](const Expectation &row) {
          return row.call == fault.call && fault.which >= row.first && fault.which <= row.last &&
                 (row.error == 0 || row.error == fault.error);
       });
   return found != std::end(EXPECTATIONS) ? found : nullptr;
}

/* What a life came to. The process itself fills in the second half as it ends. */
struct Life {
   int status;
   std::string clients;
   std::string log;
   bool struck;
   std::set<std::string> calledRaised;
   struct Ending {
      pid_t daemon;
      uid_t effectiveUser;
      size_t descriptors;
      bool leaked;
   } ending;
};

Life::Ending *sEnding;

/* An exit handler; the helper's child runs it too, where the helper cannot be executed. */
void LookBack(int status, void * /*argument*/)
{
   CallWatch::Disarm();
   if (getpid() != sEnding->daemon) {
      return;
   }
   sEnding->effectiveUser = geteuid();
   sEnding->descriptors = OpenDescriptors();
   /* The sanitizer looks into processes of its own user only. */
   if (seteuid(0) == 0 && setresuid(0, 0, 0) == 0) {
      prctl(PR_SET_DUMPABLE, 1);
   }
   sEnding->leaked = LeaksMemory();
   _exit(status);
}

/* As a launcher of an ordinary user starts the program, which is root's. */
void RunDaemon(int listener, int launcher, CallWatch *watch)
{
   std::string arguments[] = {"tessel-daemon", std::to_string(listener), std::to_string(launcher)};
   char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};

   if (setresuid(NOBODY, 0, 0) == -1) {
      return;
   }
   alarm(60);
   sEnding->daemon = getpid();
   on_exit(LookBack, nullptr);
   watch->Arm();
   exit(TesselDaemon_Main(3, argv));
}

char Registration(const DaemonProcess &daemon, const Pipe &held)
{
   switch (TesselClient_RegisterDescriptor(daemon.SocketPath().c_str(), 60000, held.reader.get()).outcome) {
   case TESSEL_REGISTERED:
      return '1';
   case TESSEL_REFUSED:
      return '0';
   case TESSEL_DAEMON_GONE:
   case TESSEL_NOT_LISTENING:
      return '-';
   default:
      return '?';
   }
}

/* Two clients come, let go, and the launcher goes. */
Life Live(const CallFault &fault, std::vector<CallFault> *faults = nullptr)
{
   MakeLibrary("#!/bin/sh -p\nexec 2>&- >> /Library/actions\n", "");
   *sEnding = {};
   CallWatch watch(fault);
   DaemonProcess daemon([&watch](int listener, int launcher) { RunDaemon(listener, launcher, &watch); });
   Life life;
   {
      const Pipe first;
      const Pipe second;
      life.clients = {Registration(daemon, first), Registration(daemon, second)};
   }
   daemon.DropLauncher();
   life.status = daemon.ExitStatus();
   life.struck = watch.Struck();
   life.calledRaised = watch.CalledRaised();
   life.ending = *sEnding;
   life.log = Replaced(WithoutTimestamps(ReadFile(SERVICE_LOG)), std::to_string(life.ending.daemon), "#");
   if (faults != nullptr) {
      *faults = watch.Faults();
   }
   return life;
}

/* The lines of the one that the other has not, but for the exit status. */
std::string Added(const std::string &log, const std::string &usual)
{
   std::multiset<std::string> known;
   std::istringstream then(usual);
   std::istringstream now(log);
   std::string added;
   for (std::string line; std::getline(then, line);) {
      known.insert(line);
   }
   for (std::string line; std::getline(now, line);) {
      for (const std::string before : {" close ", " at lib/file/file:", " at lib/file/fileWalk:"}) {
         if (const size_t found = line.find(before); found != std::string::npos) {
            const size_t number = found + before.size();
            line.replace(number, line.find_first_not_of("0123456789", number) - number, "#");
         }
      }
      if (const auto found = known.find(line); found != known.end()) {
         known.erase(found);
      } else if (line.find("Exiting with code") == std::string::npos) {
         added += line + "\n";
      }
   }
   return added;
}

std::string WithError(const std::string &text, int error)
{
   return Replaced(Replaced(text, "%d", std::to_string(error)), "%s", strerror(error));
}

class DaemonFaults : public testing::TestWithParam<size_t> {
 protected:
   void SetUp() override
   {
      if (!EnterLibrary() || geteuid() != 0) {
         GTEST_SKIP() << "needs root, for a real user other than the effective one, and a private /Library";
      }
      signal(SIGPIPE, SIG_IGN);
      /* What is root's is root's to write alone. */
      umask(022);
      fs::permissions("/Library", fs::perms(0755));
      sEnding = static_cast<Life::Ending *>(
          mmap(nullptr, sizeof(Life::Ending), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   }

   static void Judge(const CallFault &fault, const Life &life, const Life &usual)
   {
      const Expectation *const expected = Expected(fault);
      ASSERT_NE(nullptr, expected) << "a call that the table of outcomes does not have";
      const bool panicked = life.log.find("Panic: ") != std::string::npos;
      const bool ranItsCourse = life.status == 0 || life.log.find("After stop") != std::string::npos;
      const bool leftOpen = life.clients.find('0') != std::string::npos && fault.call == "epoll_ctl";

      EXPECT_TRUE(life.struck);
      if (expected->status != EITHER) {
         EXPECT_EQ(expected->status, life.status);
      }
      EXPECT_EQ(expected->clients, life.clients);
      const std::string added = Added(life.log, usual.log);
      EXPECT_EQ(WithError(expected->logged, fault.error), added);
      const bool stopRefused = added.find("Missing components") != std::string::npos;
      if (ranItsCourse && life.clients == "11" && !life.log.empty() && !stopRefused) {
         /* A line that is missing has another one in its place, unless it could not be written. */
         const std::string lost = Added(usual.log, life.log);
         const bool unwritten = fault.call == "write" || fault.call == "localtime_r";
         EXPECT_LE(std::count(lost.begin(), lost.end(), '\n'),
                   std::count(added.begin(), added.end(), '\n') + (unwritten ? 1 : 0))
             << lost;
      }
      EXPECT_FALSE(life.ending.leaked);
      EXPECT_FALSE(life.status == 0 && fs::exists(SERVICE_COPY)) << "success, with the copy still there";
      if (ranItsCourse) {
         EXPECT_LE(life.ending.descriptors, usual.ending.descriptors + (leftOpen ? 1 : 0));
      }
      /* The effective user can stay raised only if lowering fails, or if the process ends while it is. */
      if (fault.call != "seteuid") {
         EXPECT_EQ(panicked ? 0 : NOBODY, life.ending.effectiveUser);
         for (const std::string &call : life.calledRaised) {
            const bool reports = call == "write" || call == "localtime_r";
            const bool fallsBack = fault.call == "close_range" && (call == "close" || call == "sysconf");
            const bool givesUp = fault.call == "fdopendir" && call == "close";
            EXPECT_TRUE(usual.calledRaised.count(call) != 0 || reports || fallsBack || givesUp) << call;
         }
      }
   }
};

TEST_P(DaemonFaults, EveryFailingCallHasItsOutcome)
{
   const Teardowns teardowns;
   std::vector<CallFault> faults;
   const Life usual = Live({}, &faults);
   ASSERT_EQ(0, usual.status) << usual.log;
   ASSERT_EQ("11", usual.clients);
   ASSERT_EQ(std::string::npos, usual.log.find("Warning")) << usual.log;
   EXPECT_LT(300U, faults.size());
   for (size_t i = GetParam(); i < faults.size(); i += SHARES) {
      /* What is called that often is called from the same place. */
      if (faults[i].which > 16 && faults[i].which % 8 != 0) {
         continue;
      }
      SCOPED_TRACE(faults[i].call + " number " + std::to_string(faults[i].which) + ": " +
                   strerror(faults[i].error));
      Judge(faults[i], Live(faults[i]), usual);
   }
}

INSTANTIATE_TEST_SUITE_P(Share, DaemonFaults, testing::Range(size_t{0}, SHARES));

} // namespace
