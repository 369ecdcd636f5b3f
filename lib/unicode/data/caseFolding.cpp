#include "lib/unicode/data/caseFolding.h"

#include <algorithm>
#include <cstddef>

namespace {

struct Folding {
   char16_t from, to;
};

constexpr Folding foldings[] = {
#include "lib/unicode/data/caseFolding.inc"
};

constexpr std::array<uint8_t, 13> presentPages = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x10,
                                                  0x1E, 0x1F, 0x21, 0x24, 0x2C, 0xFF};

using Page = std::array<char16_t, 256>;

constexpr size_t PageIndex(size_t highByte)
{
   return static_cast<size_t>(std::find(presentPages.begin(), presentPages.end(), highByte) -
                              presentPages.begin());
}

constexpr std::array<Page, presentPages.size()> MakePages()
{
   std::array<Page, presentPages.size()> pages{};
   for (size_t i = 0; i < pages.size(); i++) {
      for (size_t low = 0; low < pages[i].size(); low++) {
         pages[i][low] = static_cast<char16_t>(size_t{presentPages[i]} << 8 | low);
      }
   }
   for (const Folding &folding : foldings) {
      /* A folding off the present pages is an index out of range here, and so does not compile. */
      pages[PageIndex(folding.from >> 8)][folding.from & 0xFF] = folding.to;
   }
   return pages;
}

constexpr std::array<Page, presentPages.size()> pages = MakePages();

constexpr std::array<const char16_t *, 256> MakeDirectory()
{
   std::array<const char16_t *, 256> directory{};
   for (size_t i = 0; i < pages.size(); i++) {
      directory[presentPages[i]] = pages[i].data();
   }
   return directory;
}

} // namespace

constexpr std::array<const char16_t *, 256> UNICODE_CASE_FOLDING_PAGES = MakeDirectory();
