#include "lib/misc/dynbuf.h"

#include "tests/support/testSupport.h"

#include <cstdint>
#include <string_view>

namespace {

class DynBufTest : public testing::Test {
 protected:
   ~DynBufTest() override
   {
      DynBuf_Destroy(&buffer_);
   }

   void ExpectContent(std::string_view bytes, uint64_t allocated)
   {
      EXPECT_EQ(std::string_view(buffer_.data, buffer_.size), bytes);
      EXPECT_EQ(buffer_.allocated, allocated);
      EXPECT_EQ(buffer_.data == nullptr, allocated == 0);
   }

   DynBuf buffer_ = {};
};

TEST_F(DynBufTest, GrowsByTheRule)
{
   static constexpr uint64_t steps[][2] = {{0, 128},         {10, 256},   {513, 513},  {0, 1026},
                                           {262143, 262143}, {0, 524286}, {0, 786430}, {900000, 1048574}};
   for (const auto &[minSize, capacity] : steps) {
      ASSERT_TRUE(DynBuf_Enlarge(&buffer_, minSize));
      ExpectContent("", capacity);
   }
}

TEST_F(DynBufTest, AppendGrowsOnlyWhenFull)
{
   static constexpr uint64_t steps[][2] = {{0, 0},           {1, 128},    {127, 128},       {300, 428},
                                           {261716, 262144}, {1, 524288}, {262143, 524288}, {1, 786432}};
   std::string expected;
   for (const auto &[length, capacity] : steps) {
      const std::string piece(length, static_cast<char>('a' + expected.size() % 26));
      ASSERT_TRUE(DynBuf_Append(&buffer_, length == 0 ? nullptr : piece.data(), length));
      expected += piece;
      ExpectContent(expected, capacity);
   }
}

TEST_F(DynBufTest, BlocksChangeHands)
{
   ASSERT_TRUE(DynBuf_Append(&buffer_, "old", 3));
   DynBuf_Attach(&buffer_, 3, strdup("new"));
   ExpectContent("new", 3);
   DynBuf copy;
   ASSERT_TRUE(DynBuf_Enlarge(&buffer_, 0) && DynBuf_Copy(&buffer_, &copy));
   std::swap(buffer_, copy);
   ExpectContent("new", 6);
   DynBuf_Destroy(&copy);
   ASSERT_TRUE(DynBuf_Copy(&copy, &copy) && DynBuf_Trim(&buffer_));
   ExpectContent("new", 3);
   free(DynBuf_Detach(&buffer_));
   EXPECT_EQ(buffer_.size, 3U);
   DynBuf_Init(&buffer_);
   ASSERT_TRUE(DynBuf_Enlarge(&buffer_, 0) && DynBuf_Trim(&buffer_));
   ExpectContent("", 0);
}

TEST_F(DynBufTest, DetachStringTerminatesWithAndWithoutRoom)
{
   for (const size_t length : {0U, 1U, 127U, 128U, 129U}) {
      const std::string text(length, 't');
      DynBuf_SafeAppend(&buffer_, text.data(), length, "file", 1);
      EXPECT_EQ(Take(DynBuf_DetachString(&buffer_)), text);
      EXPECT_EQ(buffer_.size, length);
      DynBuf_Init(&buffer_);
   }
}

TEST_F(DynBufTest, AbsurdRequestsLeaveTheBufferAsItWas)
{
   ASSERT_TRUE(DynBuf_Append(&buffer_, "abc", 3));
   EXPECT_FALSE(DynBuf_Enlarge(&buffer_, SIZE_MAX / 2) || DynBuf_Append(&buffer_, "", SIZE_MAX));
   ExpectContent("abc", 128);

   char byte = 0;
   DynBuf full = {.data = &byte, .size = UINT64_MAX - 1, .allocated = UINT64_MAX - 1};
   EXPECT_FALSE(DynBuf_Append(&full, "ab", 2) || DynBuf_Enlarge(&full, 0));
   EXPECT_EQ(full.size + full.allocated, 2 * (UINT64_MAX - 1));
}

TEST_F(DynBufTest, SafeRoutinesPanicWithTheCallersPlace)
{
   EXPECT_EQ(DynBuf_SafeEnlarge(&buffer_, 5, "some/file", 7), buffer_.data);
   ExpectContent("", 128);
   EXPECT_PANIC(DynBuf_SafeEnlarge(&buffer_, SIZE_MAX / 2, "some/file", 4000000000U),
                "Unrecoverable memory allocation failure at some/file:4000000000\n");
   EXPECT_PANIC(DynBuf_SafeAppend(&buffer_, "abc", SIZE_MAX / 2, "some/file", 8),
                "Unrecoverable memory allocation failure at some/file:8\n");
}

} // namespace
