#include "lib/misc/memory/util.h"

#include "tests/support/testSupport.h"

#include <cstring>

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
