#include "platform/descriptors.h"

#include "platform/posix/descriptorWalk.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <span>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int HIGHEST = 40;

/* From now on every close_range of this process fails with the error. */
bool RefuseCloseRange(int error)
{
   struct sock_filter steps[] = {
       BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
       BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned int>(error)),
       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
   };
   const struct sock_fprog program = {std::size(steps), steps};
   return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
          prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool IsOpen(int fd)
{
   return fcntl(fd, F_GETFD) != -1;
}

/* Opens all from 3 to HIGHEST, closes those from first on but for keep, and counts the wrong ones. To be called in
   a process that has nothing to lose. */
int CountWrong(void (*closeAllBut)(int, const int *, size_t), int first, std::span<const int> keep)
{
   int wrong = 0;
   const int null = open("/dev/null", O_RDONLY);
   for (int fd = 3; fd <= HIGHEST; fd++) {
      dup2(null, fd);
   }
   closeAllBut(first, keep.data(), keep.size());
   for (int fd = 0; fd <= HIGHEST; fd++) {
      const bool kept = fd < first || std::find(keep.begin(), keep.end(), fd) != keep.end();
      wrong += IsOpen(fd) != kept ? 1 : 0;
   }
   return wrong;
}

const struct {
   int first;
   std::vector<int> keep;
} KEEP_CASES[] = {
    {3, {}},
    {3, {3}},
    {3, {7}},
    {3, {HIGHEST}},
    {3, {3, 4, 5}},
    {3, {39, 5, 17, 5, 39, 4}},
    {3, {-1, INT_MIN, 0, 2, 9}},
    {3, {INT_MAX, 12, 11, INT_MAX - 1}},
    {20, {3, 19, 21}},
};

TEST(DescriptorsCloseAllBut, ClosesTheGapsBetweenKeptDescriptors)
{
   for (const auto &c : KEEP_CASES) {
      EXPECT_EXIT(_exit(CountWrong(Descriptors_CloseAllBut, c.first, c.keep)), testing::ExitedWithCode(0),
                  "");
      EXPECT_EXIT(_exit(CountWrong(DescriptorWalk_CloseAllBut, c.first, c.keep)), testing::ExitedWithCode(0),
                  "");
   }
}

TEST(DescriptorsCloseAllBut, WalksWhereTheKernelRefusesTheShortWay)
{
   const std::array keep{9, 30};
   for (const int error : {ENOSYS, EPERM}) {
      EXPECT_EXIT(_exit(RefuseCloseRange(error) ? CountWrong(Descriptors_CloseAllBut, 3, keep) : 99),
                  testing::ExitedWithCode(0), "");
   }
}

TEST(DescriptorsAccept, ClosesTheConnectionOnExec)
{
   const ScratchFolder folder;
   const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct sockaddr_un address = {};
   address.sun_family = AF_UNIX;
   folder.Path("s").copy(address.sun_path, sizeof address.sun_path - 1);
   const auto *const name = reinterpret_cast<const struct sockaddr *>(&address);
   ASSERT_EQ(bind(listener, name, sizeof address), 0);
   ASSERT_EQ(listen(listener, 1), 0);
   ASSERT_EQ(connect(client, name, sizeof address), 0);

   const int accepted = Descriptors_Accept(listener, nullptr, nullptr);
   EXPECT_EQ(fcntl(accepted, F_GETFD), FD_CLOEXEC);
   EXPECT_EQ(Descriptors_Accept(client, nullptr, nullptr), -1);
   EXPECT_EQ(errno, EINVAL);
   for (const int fd : {accepted, client, listener}) {
      close(fd);
   }
}

} // namespace
