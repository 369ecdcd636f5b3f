/* Exhausted memory, where more is promised than that the operation fails: see callFaults_test.cpp for that. */

#include "lib/misc/hashTable.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"
#include "tests/support/callFaults.h"
#include "tests/support/testSupport.h"

namespace {

TEST(Exhaustion, LeavesABufferAsItWas)
{
   const std::string content(128, 'c');
   OwnedDynBuf buffer;
   DynBuf copy = {.data = nullptr, .size = 1, .allocated = 1};
   ASSERT_TRUE(DynBuf_Append(&buffer, content.data(), content.size()));
   {
      const FailingAllocations faults;
      EXPECT_FALSE(DynBuf_Enlarge(&buffer, 0) || DynBuf_Append(&buffer, "m", 1) || DynBuf_Trim(&buffer) ||
                   DynBuf_Copy(&buffer, &copy));
      EXPECT_PANIC(DynBuf_SafeEnlarge(&buffer, 0, "a/file", 4000000000U),
                   "Unrecover.*at a/file:4000000000\n");
      EXPECT_PANIC(DynBuf_SafeAppend(&buffer, "b", 1, "a/file", 8), "Unrecover.*failure at a/file:8\n");
      EXPECT_PANIC(free(DynBuf_DetachString(&buffer)), "MEM_ALLOC lib/public/dynbuf:145\n");
   }
   EXPECT_EQ(copy.data, nullptr);
   EXPECT_EQ(std::string(buffer.data, buffer.size), content);
   EXPECT_EQ(buffer.allocated, 128U);
}

TEST(Exhaustion, LeavesAHashTableAsItWas)
{
   for (const uint32_t mode : {0U, HASH_FLAG_ATOMIC}) {
      HashTable *table = HashTable_Alloc(4, mode | HASH_STRING_KEY, nullptr);
      char value;
      HashTable_Insert(table, "a", &value);
      {
         const FailingAllocations faults;
         EXPECT_FALSE(HashTable_Insert(table, "a", nullptr)) << "a key that is there takes no memory";
         EXPECT_EQ(HashTable_LookupOrInsert(table, "a", nullptr), &value);
      }
      HashTable_Free(table);
   }
}

TEST(Exhaustion, EndsTheProcessInRoutinesThatCannotFailUnlessNothingIsAskedFor)
{
   static volatile size_t half = SIZE_MAX / 2;
   const struct {
      const char *where;
      void (*call)();
   } cases[] = {
       {"", [] { free(Util_SafeCalloc(half + 2, 2)); }}, /* The product wraps. */
       {"", [] { free(Util_SafeMalloc(8)); }},
       {"", [] { free(Util_SafeRealloc(nullptr, 8)); }},
       {"", [] { free(Util_SafeStrdup("")); }},
       {"", [] { free(Util_SafeStrndup("text", 3)); }},
       {"", [] { HashTable_Free(HashTable_Alloc(8, 0, nullptr)); }},
       {" at a/file:12", [] { free(UtilSafeMallocInternal(8, -1, "a/file", 12)); }},
       {" at a/file:12\\.  Bug number: 4711", [] { free(UtilSafeStrdupInternal("t", 4711, "a/file", 12)); }},
   };
   const FailingAllocations faults;
   EXPECT_TRUE(Util_SafeMalloc(0) == nullptr && Util_SafeRealloc(nullptr, 0) == nullptr);
   EXPECT_TRUE(Util_SafeCalloc(0, 8) == nullptr && Util_SafeCalloc(8, 0) == nullptr);
   for (const auto &c : cases) {
      EXPECT_PANIC(c.call(), +std::string("Unrecoverable memory allocation failure") + c.where + "\n");
   }
   /* So many numbered arguments take memory of their own. */
   const char *volatile numbered = "%8$d"; /* Means something here that the compiler would warn of. */
   EXPECT_EXIT(free(Str_SafeAsprintf(nullptr, numbered, 1, 2, 3, 4, 5, 6, 7, 8)),
               testing::KilledBySignal(SIGABRT), "");
}

} // namespace
