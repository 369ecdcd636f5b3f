#include "lib/misc/util.h"

#include "tests/support/callFaults.h"
#include "tests/support/testSupport.h"

#include <cstring>

namespace {

#define FAILURE  "Unrecoverable memory allocation failure"
#define WITH_BUG FAILURE " at a/file:12\\.  Bug number: 4711\n"

TEST(UtilSafe, GivesWhatTheLibraryGives)
{
   static constexpr char unterminated[] = {'a', 'b', 'c'};
   char *block = static_cast<char *>(Util_SafeMalloc(4));
   memcpy(block, "abc", 4);
   EXPECT_EQ(Take(static_cast<char *>(Util_SafeRealloc(block, 4096))), "abc");
   block = static_cast<char *>(Util_SafeCalloc(2, 8));
   EXPECT_EQ(std::string(block, 16), std::string(16, '\0'));
   free(block);
   EXPECT_EQ(Take(Util_SafeStrdup(nullptr)) + Take(Util_SafeStrndup(nullptr, 3)), "<null><null>");
   EXPECT_EQ(Take(Util_SafeStrdup("text")), "text");
   EXPECT_EQ(Take(Util_SafeStrndup("text", SIZE_MAX)), "text");
   EXPECT_EQ(Take(Util_SafeStrndup(unterminated, sizeof unterminated)), "abc");
}

TEST(UtilSafe, ExhaustionEndsTheProcessUnlessNothingIsAskedFor)
{
   volatile size_t half = SIZE_MAX / 2;
   EXPECT_PANIC(free(Util_SafeCalloc(half + 2, 2)), FAILURE "\n") << "a product that wraps";
   const FailingAllocations faults(1);
   EXPECT_TRUE(Util_SafeMalloc(0) == nullptr && Util_SafeRealloc(nullptr, 0) == nullptr);
   EXPECT_TRUE(Util_SafeCalloc(0, 8) == nullptr && Util_SafeCalloc(8, 0) == nullptr);
   EXPECT_PANIC(free(Util_SafeMalloc(8)), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeRealloc(nullptr, 8)), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeStrdup("")), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeStrndup("text", 3)), FAILURE "\n");
   EXPECT_PANIC(free(UtilSafeMallocInternal(8, -1, "a/file", 12)), FAILURE " at a/file:12\n");
   EXPECT_PANIC(free(UtilSafeReallocInternal(nullptr, 8, 4711, "a/file", 12)), WITH_BUG);
   EXPECT_PANIC(free(UtilSafeCallocInternal(1, 8, 4711, "a/file", 12)), WITH_BUG);
   EXPECT_PANIC(free(UtilSafeStrdupInternal("text", 4711, "a/file", 12)), WITH_BUG);
   EXPECT_PANIC(free(UtilSafeStrndupInternal("text", 2, 4711, "a/file", 12)), WITH_BUG);
}

} // namespace
