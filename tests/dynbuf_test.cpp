#include "lib/misc/memory/dynbuf.h"

#include "tests/support/testSupport.h"

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

TEST_F(DynBufTest, GrowsByTheRuleAndAppendOnlyWhenFull)
{
   for (const auto &[minSize, capacity] : {std::pair{0UL, 128UL}, {10, 256}, {513, 513}, {900000, 900000}}) {
      ASSERT_TRUE(DynBuf_Enlarge(&buffer_, minSize));
      ExpectContent("", capacity);
   }
   DynBuf_Destroy(&buffer_);
   std::string expected;
   /* clang-format off */
   for (const auto &[length, capacity] : {std::pair{0UL, 0UL}, {1, 128}, {127, 128}, {300, 428}, {261715, 262143},
                                          {1, 524286}, {262143, 786430}}) {
      /* clang-format on */
      const std::string piece(length, static_cast<char>('a' + expected.size() % 26));
      ASSERT_TRUE(DynBuf_Append(&buffer_, length == 0 ? nullptr : piece.data(), length));
      expected += piece;
      ExpectContent(expected, capacity);
   }
   EXPECT_FALSE(DynBuf_Append(&buffer_, "", SIZE_MAX));
   ExpectContent(expected, 786430);
   DynBuf full = {.data = buffer_.data, .size = UINT64_MAX - 1, .allocated = UINT64_MAX - 1};
   EXPECT_FALSE(DynBuf_Append(&full, "ab", 2) || DynBuf_Enlarge(&full, 0));
   EXPECT_EQ(full.size + full.allocated, 2 * (UINT64_MAX - 1));
}

TEST_F(DynBufTest, BlocksChangeHands)
{
   EXPECT_EQ(DynBuf_SafeEnlarge(&buffer_, 5, "some/file", 7), buffer_.data);
   DynBuf_SafeAppend(&buffer_, "old", 3, "some/file", 7);
   ExpectContent("old", 128);
   DynBuf_Attach(&buffer_, 3, strdup("new"));
   ExpectContent("new", 3);
   DynBuf copy;
   ASSERT_TRUE(DynBuf_Enlarge(&buffer_, 0) && DynBuf_Copy(&buffer_, &copy));
   std::swap(buffer_, copy);
   ExpectContent("new", 6);
   DynBuf_Destroy(&copy);
   ASSERT_TRUE(DynBuf_Copy(&copy, &copy) && DynBuf_Trim(&buffer_));
   ExpectContent("new", 3);
   EXPECT_EQ(Take(DynBuf_DetachString(&buffer_)), "new") << "where there is no room for the NUL";
   EXPECT_TRUE(buffer_.data == nullptr && buffer_.size == 3 && buffer_.allocated == 0);
   DynBuf_Init(&buffer_);
   EXPECT_EQ(Take(DynBuf_DetachString(&buffer_)), "");
   ASSERT_TRUE(DynBuf_Enlarge(&buffer_, 0) && DynBuf_Trim(&buffer_));
   ExpectContent("", 0);
}

} // namespace
