#include "daemon/serviceLog.h"

#include "tests/support/testSupport.h"

namespace {

TEST(Log, WritesOneLineWithPrefixAndTag)
{
   const CapturedLog log;
   Warning("%s: kevent errno %d.\n", "ServiceImplDaemon", 9);
   EXPECT_EQ(log.Text(), "Warning: ServiceImplDaemon: kevent errno 9.\n");
}

} // namespace
