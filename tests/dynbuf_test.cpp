#include "lib/misc/dynbuf.h"

#include "tests/support/allocationFaults.h"
#include "tests/support/testSupport.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace {

class DynBufTest : public testing::Test {
 protected:
   DynBufTest()
   {
      DynBuf_Init(&buffer_);
   }

   ~DynBufTest() override
   {
      DynBuf_Destroy(&buffer_);
   }

   void Append(std::string_view bytes)
   {
      ASSERT_TRUE(DynBuf_Append(&buffer_, bytes.data(), bytes.size()));
   }

   [[nodiscard]] std::string_view Content() const
   {
      return {buffer_.data, buffer_.size};
   }

   DynBuf buffer_;
};

TEST_F(DynBufTest, GrowsByTheRule)
{
   struct Step {
      size_t minSize;
      uint64_t capacity;
   };
   static constexpr auto steps = std::to_array<Step>({{0, 128},
                                                      {10, 256},
                                                      {513, 513},
                                                      {0, 1026},
                                                      {262143, 262143},
                                                      {0, 524286},
                                                      {0, 786430},
                                                      {900000, 1048574}});
   for (const Step &step : steps) {
      ASSERT_TRUE(DynBuf_Enlarge(&buffer_, step.minSize));
      EXPECT_EQ(buffer_.allocated, step.capacity);
      EXPECT_EQ(buffer_.size, 0U);
   }
}

TEST_F(DynBufTest, AppendGrowsOnlyWhenFull)
{
   const std::string block(262144, 'x');
   Append("a");
   EXPECT_EQ(buffer_.allocated, 128U);
   Append(std::string(127, 'b'));
   EXPECT_EQ(buffer_.allocated, 128U);
   DynBuf_Destroy(&buffer_);
   Append(block.substr(0, 300));
   EXPECT_EQ(buffer_.allocated, 300U);
   DynBuf_Destroy(&buffer_);
   Append(block);
   EXPECT_EQ(buffer_.allocated, 262144U);
   Append("y");
   EXPECT_EQ(buffer_.allocated, 524288U);
   Append(block.substr(1));
   EXPECT_EQ(buffer_.allocated, 524288U);
   Append("z");
   EXPECT_EQ(buffer_.allocated, 786432U);
   EXPECT_EQ(Content(), block + "y" + block.substr(1) + "z");
}

TEST_F(DynBufTest, AppendOfNothingTouchesNothing)
{
   EXPECT_TRUE(DynBuf_Append(&buffer_, nullptr, 0));
   DynBuf_SafeAppend(&buffer_, nullptr, 0, "file", 1);
   EXPECT_EQ(buffer_.data, nullptr);
   EXPECT_EQ(buffer_.allocated, 0U);
}

TEST_F(DynBufTest, AttachAdoptsTheBlockAndFreesTheOldOne)
{
   Append("old");
   DynBuf_Attach(&buffer_, 3, strdup("new"));
   EXPECT_EQ(Content(), "new");
   EXPECT_EQ(buffer_.allocated, 3U);
}

TEST_F(DynBufTest, DetachKeepsTheSizeField)
{
   Append("abc");
   void *block = DynBuf_Detach(&buffer_);
   EXPECT_EQ(buffer_.data, nullptr);
   EXPECT_EQ(buffer_.allocated, 0U);
   EXPECT_EQ(buffer_.size, 3U);
   EXPECT_EQ(std::string_view(static_cast<char *>(block), 3), "abc");
   free(block);
}

TEST_F(DynBufTest, DetachStringTerminatesWithAndWithoutRoom)
{
   EXPECT_EQ(Take(DynBuf_DetachString(&buffer_)), "");
   EXPECT_EQ(buffer_.size, 0U);
   for (const size_t length : {1U, 127U, 128U, 129U}) {
      DynBuf_Init(&buffer_);
      const std::string text(length, 't');
      Append(text);
      EXPECT_EQ(Take(DynBuf_DetachString(&buffer_)), text);
      EXPECT_EQ(buffer_.size, length);
   }
}

TEST_F(DynBufTest, TrimLeavesExactlyTheContent)
{
   EXPECT_TRUE(DynBuf_Trim(&buffer_));
   Append("abc");
   EXPECT_TRUE(DynBuf_Trim(&buffer_));
   EXPECT_EQ(buffer_.allocated, 3U);
   EXPECT_EQ(Content(), "abc");
   buffer_.size = 0;
   EXPECT_TRUE(DynBuf_Trim(&buffer_));
   EXPECT_EQ(buffer_.allocated, 0U);
   EXPECT_EQ(buffer_.data, nullptr);
}

TEST_F(DynBufTest, CopyHasContentAndCapacity)
{
   DynBuf copy;
   EXPECT_TRUE(DynBuf_Copy(&buffer_, &copy));
   EXPECT_EQ(copy.data, nullptr);
   Append("abc");
   ASSERT_TRUE(DynBuf_Copy(&buffer_, &copy));
   EXPECT_NE(copy.data, buffer_.data);
   EXPECT_EQ(std::string_view(copy.data, copy.size), "abc");
   EXPECT_EQ(copy.allocated, 128U);
   DynBuf_Destroy(&copy);
}

TEST_F(DynBufTest, ExhaustionLeavesTheBufferAsItWas)
{
   Append("abc");
   const DynBuf before = buffer_;
   DynBuf copy;
   {
      const FailingAllocations faults(1);
      const std::string more(126, 'm');
      EXPECT_FALSE(DynBuf_Enlarge(&buffer_, 0));
      EXPECT_FALSE(DynBuf_Append(&buffer_, more.data(), more.size()));
      EXPECT_FALSE(DynBuf_Trim(&buffer_));
      EXPECT_FALSE(DynBuf_Copy(&buffer_, &copy));
   }
   EXPECT_EQ(copy.data, nullptr);
   EXPECT_EQ(copy.allocated, 0U);
   EXPECT_EQ(buffer_.data, before.data);
   EXPECT_EQ(buffer_.allocated, before.allocated);
   EXPECT_EQ(Content(), "abc");
   EXPECT_FALSE(DynBuf_Enlarge(&buffer_, SIZE_MAX / 2));
   EXPECT_EQ(Content(), "abc");
}

TEST(DynBuf, RefusesSizesThatWrap)
{
   char byte = 0;
   DynBuf full = {.data = &byte, .size = UINT64_MAX - 1, .allocated = UINT64_MAX - 1};
   EXPECT_FALSE(DynBuf_Append(&full, "ab", 2));
   EXPECT_FALSE(DynBuf_Enlarge(&full, UINT64_MAX - 2));
   EXPECT_EQ(full.data, &byte);
   EXPECT_EQ(full.size, UINT64_MAX - 1);
   EXPECT_EQ(full.allocated, UINT64_MAX - 1);
}

TEST_F(DynBufTest, SafeRoutinesDoTheSameOrPanicWithTheCallersPlace)
{
   EXPECT_EQ(DynBuf_SafeEnlarge(&buffer_, 5, "some/file", 7), buffer_.data);
   EXPECT_EQ(buffer_.allocated, 128U);
   DynBuf_SafeAppend(&buffer_, "abc", 3, "some/file", 8);
   EXPECT_EQ(Content(), "abc");
   EXPECT_PANIC(DynBuf_SafeEnlarge(&buffer_, SIZE_MAX / 2, "some/file", 4000000000U),
                "Unrecoverable memory allocation failure at some/file:4000000000\n");
   EXPECT_PANIC(DynBuf_SafeAppend(&buffer_, "abc", SIZE_MAX, "some/file", 8),
                "Unrecoverable memory allocation failure at some/file:8\n");
   EXPECT_PANIC(
       {
          const FailingAllocations faults(1);
          buffer_.size = buffer_.allocated;
          free(DynBuf_DetachString(&buffer_));
       },
       "MEM_ALLOC lib/public/dynbuf:145\n");
}

} // namespace
