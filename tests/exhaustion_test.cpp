/* Exhausted memory, where more is promised than that the operation fails: see callFaults_test.cpp for that. */

#include "lib/misc/hashTable.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/misc/memory/util.h"
#include "lib/string/bsd_vsnprintf.h"
#include "tests/support/callFaults.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <cstdarg>

namespace {

void Format(const char *format, ...)
{
   char *text = nullptr;
   va_list args;
   va_start(args, format);
   Fmt_Vsnprintf(&text, 0, format, args);
   va_end(args);
   free(text);
}

TEST(Exhaustion, LeavesABufferAsItWas)
{
   const std::string content(128, 'c');
   DynBuf buffer;
   DynBuf copy = {.data = nullptr, .size = 1, .allocated = 1};
   DynBuf_Init(&buffer);
   ASSERT_TRUE(DynBuf_Append(&buffer, content.data(), content.size()));
   {
      const FailingAllocations faults(1);
      EXPECT_FALSE(DynBuf_Enlarge(&buffer, 0) || DynBuf_Append(&buffer, "m", 1) || DynBuf_Trim(&buffer) ||
                   DynBuf_Copy(&buffer, &copy));
      EXPECT_PANIC(DynBuf_SafeEnlarge(&buffer, 0, "some/file", 4000000000U),
                   "Unrecoverable memory allocation failure at some/file:4000000000\n");
      EXPECT_PANIC(DynBuf_SafeAppend(&buffer, "b", 1, "some/file", 8),
                   "Unrecoverable memory allocation failure at some/file:8\n");
      EXPECT_PANIC(free(DynBuf_DetachString(&buffer)), "MEM_ALLOC lib/public/dynbuf:145\n");
   }
   EXPECT_EQ(copy.data, nullptr);
   EXPECT_EQ(std::string(buffer.data, buffer.size), content);
   EXPECT_EQ(buffer.allocated, 128U);
   DynBuf_Destroy(&buffer);
}

TEST(Exhaustion, LeavesAHashTableAsItWas)
{
   for (const uint32_t mode : {0U, HASH_FLAG_ATOMIC}) {
      HashTable *table = HashTable_Alloc(4, mode | HASH_STRING_KEY, nullptr);
      char value;
      HashTable_Insert(table, "a", &value);
      {
         const FailingAllocations faults(1);
         EXPECT_FALSE(HashTable_Insert(table, "a", nullptr)) << "a key that is there takes no memory";
         EXPECT_EQ(HashTable_LookupOrInsert(table, "a", nullptr), &value);
      }
      HashTable_Free(table);
   }
   for (const int allocation : {1, 2, 3}) {
      const FailingAllocations faults(allocation);
      EXPECT_PANIC(HashTable_Insert(HashTable_Alloc(8, 0, nullptr), "a", nullptr),
                   "Unrecoverable memory allocation failure\n");
   }
}

TEST(Exhaustion, EndsTheProcessInRoutinesThatCannotFailUnlessNothingIsAskedFor)
{
   const std::string failure = "Unrecoverable memory allocation failure";
   const std::string withBug = failure + " at a/file:12\\.  Bug number: 4711\n";
   volatile size_t half = SIZE_MAX / 2;
   EXPECT_PANIC(free(Util_SafeCalloc(half + 2, 2)), +failure + "\n") << "a product that wraps";
   const FailingAllocations faults(1);
   EXPECT_TRUE(Util_SafeMalloc(0) == nullptr && Util_SafeRealloc(nullptr, 0) == nullptr);
   EXPECT_TRUE(Util_SafeCalloc(0, 8) == nullptr && Util_SafeCalloc(8, 0) == nullptr);
   EXPECT_PANIC(free(Util_SafeMalloc(8)), +failure + "\n");
   EXPECT_PANIC(free(Util_SafeRealloc(nullptr, 8)), +failure + "\n");
   EXPECT_PANIC(free(Util_SafeStrdup("")), +failure + "\n");
   EXPECT_PANIC(free(Util_SafeStrndup("text", 3)), +failure + "\n");
   EXPECT_PANIC(free(UtilSafeMallocInternal(8, -1, "a/file", 12)), +failure + " at a/file:12\n");
   EXPECT_PANIC(free(UtilSafeReallocInternal(nullptr, 8, 4711, "a/file", 12)), +withBug);
   EXPECT_PANIC(free(UtilSafeCallocInternal(1, 8, 4711, "a/file", 12)), +withBug);
   EXPECT_PANIC(free(UtilSafeStrdupInternal("text", 4711, "a/file", 12)), +withBug);
   EXPECT_PANIC(free(UtilSafeStrndupInternal("text", 2, 4711, "a/file", 12)), +withBug);
   for (const int allocation : {1, 2}) {
      const FailingAllocations other(allocation);
      EXPECT_EXIT(Format("%8$d", 1, 2, 3, 4, 5, 6, 7, 8), testing::KilledBySignal(SIGABRT), "");
   }
}

} // namespace
