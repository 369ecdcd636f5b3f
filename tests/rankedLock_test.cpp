#include "lib/misc/rankedLock.h"
#include "tests/support/testSupport.h"

namespace {

using Lock = std::unique_ptr<RankedLock, decltype([](RankedLock *lock) { RankedLock_Free(lock); })>;

TEST(RankedLock, KeepsThreadsApartAndLetsItsHolderIn)
{
   const Lock low(RankedLock_Create("low", 1));
   const Lock high(RankedLock_Create("high", 0xF0007100));
   int count = 0;
   OnThreads(4, [&](size_t) {
      for (int n = 0; n < 1000; n++) {
         const RankedLockHold outer(low.get());
         const RankedLockHold inner(high.get());
         const RankedLockHold again(low.get());
         count++;
      }
   });
   EXPECT_EQ(4000, count);
}

TEST(RankedLock, EndsAProcessThatTakesRanksBackwards)
{
#ifdef NDEBUG
   GTEST_SKIP() << "ranks are checked in debug builds";
#endif
   const Lock low(RankedLock_Create("low", 1));
   const Lock high(RankedLock_Create("high", 0xF0007100));
   const Lock other(RankedLock_Create("other", 0xF0007100));
   RankedLock_Acquire(low.get());
   RankedLock_Acquire(high.get());
   RankedLock_Release(low.get());
   EXPECT_PANIC(RankedLock_Acquire(low.get()),
                "RankedLock_Acquire: \"low\" of rank 0x1 is taken while \"high\" of rank "
                "0xF0007100 is held");
   EXPECT_PANIC(RankedLock_Acquire(other.get()), "RankedLock_Acquire: \"other\"");
   RankedLock_Release(high.get());
   RankedLock_Acquire(other.get());
   RankedLock_Release(other.get());
}

} // namespace
