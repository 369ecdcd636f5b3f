#include "lib/misc/util.h"

#include "tests/support/allocationFaults.h"
#include "tests/support/testSupport.h"

#include <cstdint>
#include <cstring>
#include <functional>

namespace {

/* Not a constant, or the compiler refuses the request by itself. */
volatile size_t sTooMuch = SIZE_MAX / 2;

TEST(UtilSafe, AllocatorsGiveUsableBlocks)
{
   char *block = static_cast<char *>(Util_SafeMalloc(4));
   memcpy(block, "abc", 4);
   block = static_cast<char *>(Util_SafeRealloc(block, 4096));
   EXPECT_STREQ(block, "abc");
   free(block);
   block = static_cast<char *>(Util_SafeCalloc(2, 8));
   EXPECT_EQ(std::string(block, 16), std::string(16, '\0'));
   free(block);
}

TEST(UtilSafe, StringCopies)
{
   static constexpr char unterminated[] = {'a', 'b', 'c'};
   EXPECT_EQ(Util_SafeStrdup(nullptr), nullptr);
   EXPECT_EQ(Util_SafeStrndup(nullptr, 3), nullptr);
   EXPECT_EQ(Take(Util_SafeStrdup("")), "");
   EXPECT_EQ(Take(Util_SafeStrdup("text")), "text");
   EXPECT_EQ(Take(Util_SafeStrndup("text", 0)), "");
   EXPECT_EQ(Take(Util_SafeStrndup("text", 2)), "te");
   EXPECT_EQ(Take(Util_SafeStrndup("text", SIZE_MAX)), "text");
   EXPECT_EQ(Take(Util_SafeStrndup(unterminated, sizeof unterminated)), "abc");
   EXPECT_EQ(Take(UtilSafeStrdupInternal("text", -1, "file", 1)), "text");
   EXPECT_EQ(Take(UtilSafeStrndupInternal("text", 3, -1, "file", 1)), "tex");
}

TEST(UtilSafe, ARequestForNothingMayFail)
{
   const FailingAllocations faults(1);
   EXPECT_EQ(Util_SafeMalloc(0), nullptr);
   EXPECT_EQ(Util_SafeRealloc(nullptr, 0), nullptr);
   EXPECT_EQ(Util_SafeCalloc(0, 8), nullptr);
   EXPECT_EQ(Util_SafeCalloc(8, 0), nullptr);
}

TEST(UtilSafe, EveryPlainFormPanicsWithoutAPlace)
{
   static constexpr const char *message = "Unrecoverable memory allocation failure\n";
   EXPECT_PANIC(free(Util_SafeMalloc(sTooMuch)), "Unrecoverable memory allocation failure\n");
   EXPECT_PANIC(free(Util_SafeRealloc(nullptr, sTooMuch)), "Unrecoverable memory allocation failure\n");
   EXPECT_PANIC(free(Util_SafeCalloc(sTooMuch, 4)), "Unrecoverable memory allocation failure\n");
   for (const std::function<char *()> &copy : {std::function([] { return Util_SafeStrdup(message); }),
                                               std::function([] { return Util_SafeStrndup(message, 3); })}) {
      EXPECT_PANIC(
          {
             const FailingAllocations faults(1);
             free(copy());
          },
          "Unrecoverable memory allocation failure\n");
   }
}

TEST(UtilSafe, EveryInternalFormNamesItsPlaceAndBug)
{
   const std::function<void *(int32_t bugNumber)> forms[] = {
       [](int32_t bug) { return UtilSafeMallocInternal(8, bug, "a/file", 12); },
       [](int32_t bug) { return UtilSafeReallocInternal(nullptr, 8, bug, "a/file", 12); },
       [](int32_t bug) { return UtilSafeCallocInternal(1, 8, bug, "a/file", 12); },
       [](int32_t bug) { return UtilSafeStrdupInternal("text", bug, "a/file", 12); },
       [](int32_t bug) { return UtilSafeStrndupInternal("text", 2, bug, "a/file", 12); },
   };
   for (const auto &form : forms) {
      free(form(-1));
      EXPECT_PANIC(
          {
             const FailingAllocations faults(1);
             free(form(-1));
          },
          "Unrecoverable memory allocation failure at a/file:12\n");
      EXPECT_PANIC(
          {
             const FailingAllocations faults(1);
             free(form(4711));
          },
          "Unrecoverable memory allocation failure at a/file:12\\.  Bug number: 4711\n");
   }
}

} // namespace
