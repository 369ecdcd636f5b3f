#include "platform/descriptors.h"

#include "tests/support/daemonHarness.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int HIGHEST = 40;

/* From now on every close_range of this process fails. */
bool RefuseCloseRange()
{
   struct sock_filter steps[] = {
       BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
       BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
   };
   const struct sock_fprog program = {std::size(steps), steps};
   return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
          prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/* Opens all from 3 to HIGHEST, closes those from first on but for keep, and counts the wrong ones. To be called in
   a process that has nothing to lose. */
int CountWrong(int first, const std::vector<int> &keep)
{
   int wrong = 0;
   for (int fd = 3; fd <= HIGHEST; fd++) {
      dup2(STDERR_FILENO, fd);
   }
   Descriptors_CloseAllBut(first, keep.data(), keep.size());
   for (int fd = 0; fd <= HIGHEST; fd++) {
      const bool kept = fd < first || std::find(keep.begin(), keep.end(), fd) != keep.end();
      wrong += (fcntl(fd, F_GETFD) != -1) != kept ? 1 : 0;
   }
   return wrong;
}

TEST(DescriptorsCloseAllBut, ClosesTheGapsBetweenKeptDescriptors)
{
   const std::pair<int, std::vector<int>> cases[] = {{3, {}},
                                                     {3, {3, HIGHEST}},
                                                     {3, {39, 5, 17, 5, 39, 4}},
                                                     {3, {INT_MAX, -1, INT_MIN, 0, 2, 9, INT_MAX - 1}},
                                                     {20, {3, 19, 21}}};
   for (const auto &[first, keep] : cases) {
      EXPECT_EXIT(_exit(CountWrong(first, keep)), testing::ExitedWithCode(0), "");
      /* Where the kernel, or a sandbox, refuses the short way, each one is tried. */
      EXPECT_EXIT(_exit(RefuseCloseRange() ? CountWrong(first, keep) : 99), testing::ExitedWithCode(0), "");
   }
}

TEST(DescriptorsAccept, ClosesTheConnectionOnExec)
{
   DaemonProcess daemon([](int listener, int /*launcher*/) {
      _exit(fcntl(Descriptors_Accept(listener, nullptr, nullptr), F_GETFD) == FD_CLOEXEC ? 0 : 1);
   });
   const Connection client(daemon);
   EXPECT_EQ(daemon.ExitStatus(), 0);
}

} // namespace
