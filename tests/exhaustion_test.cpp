/* Exhausted memory, for every module that reports it to its caller or ends the process by it. */

#include "lib/dict/dictll.h"
#include "lib/misc/codeset.h"
#include "lib/misc/dynbuf.h"
#include "lib/misc/escape.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/util.h"
#include "lib/string/bsd_vsnprintf.h"
#include "lib/unicode/unicodeSimpleTypes.h"
#include "tests/support/allocationFaults.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <cstring>

namespace {

/* A routine that gives a malloc'ed string, or null where an allocation fails; its length is then left alone. */
using Routine = char *(*)(const std::string &input, size_t *length);

constexpr EscapeTable NEWLINES = [] {
   EscapeTable table = {};
   table['\n'] = -1;
   return table;
}();

template <auto ROUTINE> char *Measured(const std::string &in, size_t *length)
{
   char *text = ROUTINE(in.c_str());
   *length = text != nullptr ? strlen(text) : *length;
   return text;
}

template <auto ROUTINE> char *Counted(const std::string &in, size_t *length)
{
   return ROUTINE(in.data(), in.size(), length);
}

char *Format(const char *format, ...)
{
   char *text = nullptr;
   va_list args;
   va_start(args, format);
   Fmt_Vsnprintf(&text, 0, format, args);
   va_end(args);
   return text;
}

/* A first block, its growth, a block for the wide text, and growth. */
char *FormatLong(const char *text)
{
   return Format("%s%ls%s%1000d%.300f", text, L"wide", text, 1, 1.5);
}

char *Marshal(const char *value)
{
   DynBuf buffer;
   DynBuf_Init(&buffer);
   const bool whole = DynBuf_Append(&buffer, "", 0) && DictLL_MarshalLine(&buffer, "name", value);
   EXPECT_TRUE(whole || buffer.size == 0);
   char *text = whole ? DynBuf_DetachString(&buffer) : nullptr;
   DynBuf_Destroy(&buffer);
   return text;
}

template <EncodingId SOURCE, EncodingId TARGET> char *Convert(const std::string &in, size_t *length)
{
   char *text = nullptr;
   const bool converted =
       CodeSet_Convert(Unicode_EncodingEnumToName(SOURCE), in.data(), in.size() & ~1U,
                       Unicode_EncodingEnumToName(TARGET), CODESET_SUBSTITUTE, &text, length);
   EXPECT_EQ(converted, text != nullptr);
   return text;
}

constexpr Routine ROUTINES[] = {
    [](const std::string &in, size_t *n) { return Escape_Bytes("\\x", NEWLINES, in.data(), in.size(), n); },
    [](const std::string &in, size_t *n) {
       return Escape_BytesWithChar('%', NEWLINES, in.data(), in.size(), n);
    },
    [](const std::string &in, size_t *n) { return Escape_Unescape('%', in.data(), in.size(), n); },
    Counted<Escape_StripCarriageReturns>,
    Counted<Escape_ShellQuote>,
    Counted<Escape_RegexMetachars>,
    Measured<[](const char *in) { return Escape_StripEscapeChar('\\', in); }>,
    Measured<Escape_CommaAndBackslash>,
    Measured<FormatLong>,
    Measured<Marshal>,
    Convert<ENCODING_UTF8, ENCODING_UTF8>,
    Convert<ENCODING_UTF8, ENCODING_UTF16_LE>,
    Convert<ENCODING_UTF16_LE, ENCODING_UTF8>,
    Convert<ENCODING_UTF16_BE, ENCODING_UTF8>,
    Convert<ENCODING_UTF16_BE, ENCODING_UTF16_BE>,
    Convert<ENCODING_US_ASCII, ENCODING_UTF8>,
    Convert<ENCODING_ISO_8859_1, ENCODING_UTF8>};

/* Whichever allocation fails; what the routine then leaks, the leak checker reports. */
TEST(Exhaustion, GivesNullAndLeavesTheLengthAndErrnoAlone)
{
   std::string input(300, '\n');
   for (int i = 0; i < 150; i++) {
      input += "\xC3\xA9\n\n";
   }
   input += ",,''..\\\\\r\n\"";
   for (const Routine &routine : ROUTINES) {
      SCOPED_TRACE(&routine - ROUTINES);
      size_t ignored;
      free(routine(input, &ignored)); /* Names of encodings are looked up once. */
      const int allocations = FailEachAllocation([&] {
         size_t length = SIZE_MAX;
         const bool none = Take(routine(input, &length)) == "<null>";
         EXPECT_EQ(none, FailingAllocations::Failed());
         EXPECT_EQ(length == SIZE_MAX, none);
      });
      EXPECT_GE(allocations, 2);
   }
   const int allocations = FailEachAllocation([&] {
      errno = 77;
      free(FormatLong(input.c_str()));
      EXPECT_EQ(errno, 77);
   });
   EXPECT_GE(allocations, 4);
   char buffer[4];
   const FailingAllocations faults(1);
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', "x", 1, buffer, 3));
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
