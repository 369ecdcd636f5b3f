#ifndef TESSEL_LIB_UNICODE_DATA_CASE_FOLDING_H
#define TESSEL_LIB_UNICODE_DATA_CASE_FOLDING_H

#include <array>
#include <cstdint>

/* The simple case folding of UTF-16 units (Unicode Character Database, CaseFolding.txt, status C and S): a page of 256 folded
   units for each high byte, or null where the units of the page fold to themselves. */
extern const std::array<const char16_t *, 256> UNICODE_CASE_FOLDING_PAGES;

inline char16_t CaseFolding_Unit(char16_t unit)
{
   const char16_t *page = UNICODE_CASE_FOLDING_PAGES[unit >> 8];
   return page == nullptr ? unit : page[unit & 0xFF];
}

#endif
