#include "lib/misc/dynbuf.h"
#include "lib/misc/escape.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/util.h"
#include "lib/string/bsd_vsnprintf.h"
#include "tests/support/allocationFaults.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>

/* What the modules do when memory runs out. */

namespace {

#define FAILURE "Unrecoverable memory allocation failure"

TEST(UtilSafe, ARequestForNothingMayFail)
{
   const FailingAllocations faults(1);
   EXPECT_EQ(Util_SafeMalloc(0), nullptr);
   EXPECT_EQ(Util_SafeRealloc(nullptr, 0), nullptr);
   EXPECT_EQ(Util_SafeCalloc(0, 8), nullptr);
   EXPECT_EQ(Util_SafeCalloc(8, 0), nullptr);
}

TEST(UtilSafe, ExhaustionEndsTheProcessInEveryForm)
{
   const FailingAllocations faults(1);
   EXPECT_PANIC(free(Util_SafeMalloc(8)), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeRealloc(nullptr, 8)), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeCalloc(1, 8)), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeStrdup("")), FAILURE "\n");
   EXPECT_PANIC(free(Util_SafeStrndup("text", 3)), FAILURE "\n");
   EXPECT_PANIC(free(UtilSafeMallocInternal(8, -1, "a/file", 12)), FAILURE " at a/file:12\n");
   EXPECT_PANIC(free(UtilSafeReallocInternal(nullptr, 8, 4711, "a/file", 12)),
                FAILURE " at a/file:12\\.  Bug number: 4711\n");
   EXPECT_PANIC(free(UtilSafeCallocInternal(1, 8, 4711, "a/file", 12)),
                FAILURE " at a/file:12\\.  Bug number: 4711\n");
   EXPECT_PANIC(free(UtilSafeStrdupInternal("text", 4711, "a/file", 12)),
                FAILURE " at a/file:12\\.  Bug number: 4711\n");
   EXPECT_PANIC(free(UtilSafeStrndupInternal("text", 2, -1, "a/file", 12)), FAILURE " at a/file:12\n");
}

class DynBufTest : public testing::Test {
 protected:
   ~DynBufTest() override
   {
      DynBuf_Destroy(&buffer_);
   }

   DynBuf buffer_ = {};
};

TEST_F(DynBufTest, FailureLeavesTheBufferAsItWas)
{
   ASSERT_TRUE(DynBuf_Append(&buffer_, "abc", 3));
   DynBuf copy = buffer_;
   {
      const FailingAllocations faults(1);
      const std::string more(126, 'm');
      EXPECT_FALSE(DynBuf_Enlarge(&buffer_, 0) || DynBuf_Append(&buffer_, more.data(), more.size()) ||
                   DynBuf_Trim(&buffer_) || DynBuf_Copy(&buffer_, &copy));
   }
   EXPECT_EQ(copy.data, nullptr);
   EXPECT_EQ(std::string_view(buffer_.data, buffer_.size), "abc");
   EXPECT_EQ(buffer_.allocated, 128U);
}

TEST_F(DynBufTest, DetachingAStringWithoutRoomForItsEndEndsTheProcess)
{
   ASSERT_TRUE(DynBuf_Enlarge(&buffer_, 0));
   buffer_.size = buffer_.allocated;
   const FailingAllocations faults(1);
   EXPECT_PANIC(free(DynBuf_DetachString(&buffer_)), "MEM_ALLOC lib/public/dynbuf:145\n");
}

using Routine = char *(*)(const std::string &input, size_t *outLength);

constexpr EscapeTable LINE_ENDS = [] {
   EscapeTable table = {};
   table['\n'] = -1;
   return table;
}();

template <auto ROUTINE> char *Plain(const std::string &in, size_t *outLength)
{
   return ROUTINE(in.data(), in.size(), outLength);
}

/* The routines that give no length get one here. */
template <auto ROUTINE> char *Measured(const std::string &in, size_t *outLength)
{
   char *text = ROUTINE(in.c_str());
   if (text != nullptr) {
      *outLength = strlen(text);
   }
   return text;
}

constexpr Routine ESCAPES[] = {
    [](const std::string &in, size_t *outLength) {
       return Escape_Bytes("\\x", LINE_ENDS, in.data(), in.size(), outLength);
    },
    [](const std::string &in, size_t *outLength) {
       return Escape_BytesWithChar('%', LINE_ENDS, in.data(), in.size(), outLength);
    },
    [](const std::string &in, size_t *outLength) {
       return Escape_Unescape('%', in.data(), in.size(), outLength);
    },
    [](const std::string &in, size_t *outLength) {
       return Measured<[](const char *text) { return Escape_StripEscapeChar('\\', text); }>(in, outLength);
    },
    Plain<Escape_StripCarriageReturns>,
    Plain<Escape_ShellQuote>,
    Plain<Escape_RegexMetachars>,
    Measured<Escape_CommaAndBackslash>,
};

/* Whichever allocation fails; what the routine then leaks, the leak checker reports. */
TEST(Escape, GivesNullAndLeavesTheLengthAlone)
{
   const std::string input = std::string(300, '\n') + ",,''..\\\\\r\n";
   for (const Routine routine : ESCAPES) {
      int failures = 0;
      for (bool failed = true; failed; failures++) {
         size_t length = 4711;
         const FailingAllocations faults(failures + 1);
         char *result = routine(input, &length);
         failed = FailingAllocations::Failed();
         EXPECT_EQ(result == nullptr, failed);
         EXPECT_EQ(length == 4711, failed);
         free(result);
      }
      EXPECT_GE(failures, 2);
   }
}

TEST(Escape, UnescapesNothingWithoutMemory)
{
   char buffer[257];
   const FailingAllocations faults(1);
   EXPECT_FALSE(Escape_UnescapeToBuffer('\\', "x", 1, buffer, sizeof buffer));
}

TEST(HashTable, NeedsMemoryForNewKeysOnly)
{
   for (const uint32_t mode : {0U, HASH_FLAG_ATOMIC}) {
      HashTable *table = HashTable_Alloc(4, mode | HASH_STRING_KEY, nullptr);
      char value = 0;
      void *found = nullptr;
      EXPECT_TRUE(HashTable_Insert(table, "key", &value));
      {
         const FailingAllocations faults(1);
         EXPECT_FALSE(HashTable_Insert(table, "key", nullptr));
         EXPECT_EQ(HashTable_LookupOrInsert(table, "key", nullptr), &value);
         EXPECT_TRUE(HashTable_Lookup(table, "key", &found));
      }
      EXPECT_EQ(found, &value);
      HashTable_Free(table);
   }
}

TEST(HashTable, EndsTheProcess)
{
   for (const int allocation : {1, 2, 3}) {
      const FailingAllocations faults(allocation);
      EXPECT_PANIC(
          {
             HashTable *table = HashTable_Alloc(8, 0, nullptr);
             HashTable_Insert(table, "a", nullptr);
             HashTable_Free(table);
          },
          FAILURE "\n");
   }
}

/* The output in allocating mode; a failure is "<-1>". No format attribute: the compiler does not know all that the
   engine understands. */
std::string F(const char *format, ...)
{
   char *output = nullptr;
   va_list args;
   va_start(args, format);
   const int result = Fmt_Vsnprintf(&output, 0, format, args);
   va_end(args);
   EXPECT_EQ(output == nullptr, result == -1);
   return result == -1 ? "<-1>" : Take(output);
}

TEST(FmtFormat, SurvivesEveryFailedAllocation)
{
   const std::string text(500, 'x');
   int failures = 0;

   for (std::string result = "<-1>"; result == "<-1>"; failures++) {
      errno = 77;
      const FailingAllocations faults(failures + 1);
      result = F("%s%ls%s%1000d%.300f", text.c_str(), L"wide", text.c_str(), 1, 1.5);
      EXPECT_EQ(errno, 77);
   }
   EXPECT_GE(failures, 5) << "the first block, growth, the wide text, growth, and none";
   const FailingAllocations faults(2);
   EXPECT_EXIT(F("%8$d", 1, 2, 3, 4, 5, 6, 7, 8), testing::KilledBySignal(SIGABRT), "");
}

} // namespace
