#include "lib/unicode/unicodeSimpleTypes.h"

#include "lib/unicode/encodingNames.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

namespace {

struct ExpectedRow {
   const char *preferred;
   EncodingId encoding;
   bool usable;
   uint32_t windowsCodePage;
};

constexpr ExpectedRow expectedRows[] = {
#include "tests/data/encodingRows.inc"
};

/* Lookups remember spellings without regard to case, so every case starts from nothing. */
class Lookup : public testing::Test {
 protected:
   Lookup()
   {
      UnicodeIANACacheFree();
   }
};

std::vector<std::string> Names(const EncodingRow &row)
{
   return {row.names.begin(), std::find(row.names.begin(), row.names.end(), nullptr)};
}

const EncodingRow &RowOf(EncodingId encoding)
{
   return *std::find_if(encodingRows.begin(), encodingRows.end(),
                        [encoding](const EncodingRow &row) { return row.encoding == encoding; });
}

EncodingId FreshLookup(const char *name)
{
   UnicodeIANACacheFree();
   return UnicodeIANALookup(name);
}

} // namespace

TEST(EncodingTable, HasTheRowsProgramsRelyOn)
{
   ASSERT_EQ(std::size(expectedRows), encodingRows.size());
   size_t usable = 0;
   size_t codePages = 0;
   std::set<EncodingId> identifiers;
   for (size_t i = 0; i < encodingRows.size(); i++) {
      const EncodingRow &row = encodingRows[i];
      EXPECT_STREQ(row.names.at(static_cast<size_t>(row.preferredIndex)), expectedRows[i].preferred) << i;
      EXPECT_EQ(row.encoding, expectedRows[i].encoding) << i;
      EXPECT_EQ(row.usable, expectedRows[i].usable) << i;
      EXPECT_EQ(row.windowsCodePage, expectedRows[i].windowsCodePage) << i;
      usable += row.usable ? 1 : 0;
      codePages += row.windowsCodePage != NO_CODE_PAGE ? 1 : 0;
      identifiers.insert(row.encoding);
   }
   EXPECT_EQ(usable, 77U);
   EXPECT_EQ(codePages, 153U);
   EXPECT_EQ(identifiers.size(), 324U);
   EXPECT_EQ(*identifiers.begin(), 0);
   EXPECT_EQ(*identifiers.rbegin(), 323);
}

TEST(EncodingTable, IsWellFormed)
{
   std::map<int32_t, int> mibs;
   for (const EncodingRow &row : encodingRows) {
      const std::vector<std::string> names = Names(row);
      EXPECT_LE(names.size(), 20U);
      EXPECT_LT(static_cast<size_t>(row.preferredIndex), names.size());
      EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size()) << names[0];
      mibs[row.mib]++;
   }
   /* What shares a number: the rows without one, ISO-8859-6 and ASMO-708, four rows of ISO-2022-JP, and the two spellings
      of ISO-8859-8-I. */
   std::erase_if(mibs, [](const auto &mib) { return mib.second == 1; });
   EXPECT_EQ(mibs, (std::map<int32_t, int>{{-1, 67}, {9, 2}, {39, 4}, {85, 2}}));
}

TEST(EncodingTable, HasTheRowsGivenInFull)
{
   const struct {
      EncodingId encoding;
      int32_t mib;
      std::vector<std::string> names;
   } rows[] = {
       {7,
        3,
        {"ANSI_X3.4-1968", "iso-ir-6", "ANSI_X3.4-1986", "ISO_646.irv:1991", "ASCII", "ISO646-US", "US-ASCII",
         "us", "IBM367", "cp367", "csASCII", "646", "ascii7"}},
       {8,
        4,
        {"ISO_8859-1:1987", "iso-ir-100", "ISO_8859-1", "ISO-8859-1", "latin1", "l1", "IBM819", "CP819",
         "csISOLatin1", "8859_1", "819"}},
       {0,
        106,
        {"UTF-8", "ibm-1208", "ibm-1209", "ibm-5304", "ibm-5305", "ibm-13496", "ibm-13497", "ibm-17592",
         "ibm-17593", "cp1208"}},
       {35,
        2252,
        {"windows-1252", "ibm-5348_P100-1997", "ibm-5348", "cp1252", "ibm-1252_P100-2000", "ibm-1252"}},
   };
   for (const auto &row : rows) {
      EXPECT_EQ(RowOf(row.encoding).mib, row.mib);
      EXPECT_EQ(Names(RowOf(row.encoding)), row.names);
   }
   /* Of these two the beginnings and some members are fixed. */
   const std::vector<std::string> little = Names(RowOf(ENCODING_UTF16_LE));
   const std::vector<std::string> big = Names(RowOf(ENCODING_UTF16_BE));
   EXPECT_EQ(RowOf(ENCODING_UTF16_LE).mib, 1014);
   EXPECT_EQ(RowOf(ENCODING_UTF16_BE).mib, 1013);
   EXPECT_TRUE(little[0] == "UTF-16LE" && little[1] == "x-utf-16le" && little[2].starts_with("ibm-"));
   EXPECT_TRUE(big[0] == "UTF-16BE" && big[1] == "x-utf-16be" && big[2].starts_with("ibm-"));
   for (const char *name : {"UTF16_LittleEndian", "UnicodeLittleUnmarked"}) {
      EXPECT_TRUE(std::find(little.begin(), little.end(), name) != little.end()) << name;
   }
   for (const char *name : {"cp1200", "cp1201"}) {
      EXPECT_TRUE(std::find(big.begin(), big.end(), name) != big.end()) << name;
   }
}

/* Each preferred name finds its own row, but for the row that repeats an earlier one's name and the row of an identifier
   that has two. */
TEST_F(Lookup, ResolvesEveryPreferredName)
{
   for (const EncodingRow &row : encodingRows) {
      const char *name = row.names[static_cast<size_t>(row.preferredIndex)];
      const EncodingId expected = row.encoding == 294 ? 29 : row.usable ? row.encoding : ENCODING_UNKNOWN;
      EXPECT_EQ(FreshLookup(name), expected) << name;
      EXPECT_EQ(UnicodeIANALookup(name), expected) << name << ", from the cache";
   }
   for (EncodingId encoding = 0; encoding < ENCODING_COUNT; encoding++) {
      EXPECT_EQ(RowOf(encoding).names[static_cast<size_t>(RowOf(encoding).preferredIndex)],
                Unicode_EncodingEnumToName(encoding));
   }
}

TEST_F(Lookup, FindsCodePagesExactNamesAndLooseOnes)
{
   const struct {
      const char *name;
      EncodingId encoding;
   } cases[] = {
       {"UTF-8", 0},
       {"utf-8", 0},
       {"utf8", 0},
       {"UTF_8", 0},
       {"-u.t f:8-", 0},
       {"latin-1", 8},
       {"us", 7},
       {"windows-1252", 35},
       {"Windows-1252", 35},
       {"WINDOWS-1252", 35},
       {"windows-950", 22},
       {"windows-00950", 22},
       {"windows-4294968246", 22},
       {"windows-65001", 0},
       {"WINDOWS-65001", ENCODING_UNKNOWN},
       {"windows-949-2000", 318},
       {"Windows-31J", 170},
       {"windows-31j", 170},
       {"ISO-8859-8-I", 107},
       {"csISO2022JP", 293},
       {"ISO-2022-JP", 29},
       {"ASMO-708", 13},
       {"ibm-813", ENCODING_UNKNOWN},
       {"iso-8859-8-i", ENCODING_UNKNOWN},
       {"windows-", ENCODING_UNKNOWN},
       {"windows-12x", ENCODING_UNKNOWN},
       {"", ENCODING_UNKNOWN},
       {"--", ENCODING_UNKNOWN},
       {"utf", ENCODING_UNKNOWN},
       {"utf88", ENCODING_UNKNOWN},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(FreshLookup(c.name), c.encoding) << c.name;
   }
}

TEST_F(Lookup, LogsAnUnknownNameEveryTimeAndAnUnusableOneNever)
{
   const CapturedLog log;
   EXPECT_EQ(UnicodeIANALookup("no-Such"), ENCODING_UNKNOWN);
   EXPECT_EQ(UnicodeIANALookup("no-Such"), ENCODING_UNKNOWN);
   EXPECT_EQ(UnicodeIANALookup("ibm-813"), ENCODING_UNKNOWN);
   EXPECT_EQ(UnicodeIANALookup("ibm-813"), ENCODING_UNKNOWN);
   const std::string line = "UnicodeIANALookup: Did not find an IANA match for encoding \"no-Such\"\n";
   EXPECT_EQ(log.Text(), line + line);

   /* The mark of a row without a code page is none. */
   EXPECT_EQ(UnicodeIANALookup("windows-4294967295"), ENCODING_UNKNOWN);
   EXPECT_TRUE(log.Text().ends_with("encoding \"windows-4294967295\"\n"));
}

/* The cache holds the first spelling's row for all spellings that differ in case only. */
TEST_F(Lookup, AnswersFromTheCacheWithoutRegardToCase)
{
   EXPECT_EQ(UnicodeIANALookup("iso-8859-8-i"), ENCODING_UNKNOWN);
   EXPECT_EQ(UnicodeIANALookup("ISO-8859-8-I"), ENCODING_UNKNOWN);
   EXPECT_EQ(FreshLookup("ISO-8859-8-I"), 107);
   EXPECT_EQ(UnicodeIANALookup("iso-8859-8-i"), 107);
   EXPECT_EQ(UnicodeIANALookup("windows-65001"), 0);
   EXPECT_EQ(UnicodeIANALookup("WINDOWS-65001"), 0);
}

TEST_F(Lookup, IsSafeOnManyThreadsAtOnce)
{
   const std::vector<std::pair<const char *, EncodingId>> names = {
       {"UTF-8", 0}, {"latin1", 8}, {"windows-1252", 35}, {"ibm-813", -2}, {"Utf 16 le", 1}, {"Big5", 22}};
   for (int round = 0; round < 50; round++) {
      UnicodeIANACacheFree();
      std::vector<std::thread> threads;
      for (size_t i = 0; i < 4; i++) {
         threads.emplace_back([&names, i] {
            for (size_t k = 0; k < 3 * names.size(); k++) {
               const auto &[name, encoding] = names[(i + k) % names.size()];
               EXPECT_EQ(UnicodeIANALookup(name), encoding);
               EXPECT_EQ(Unicode_GetCurrentEncoding(), ENCODING_UTF8);
            }
         });
      }
      for (std::thread &thread : threads) {
         thread.join();
      }
   }
}

TEST(EncodingId, StandsForANameOrEndsTheProcess)
{
   EXPECT_STREQ(Unicode_EncodingEnumToName(13), "ISO-8859-6");
   EXPECT_STREQ(Unicode_EncodingEnumToName(7), "ASCII");
   EXPECT_STREQ(Unicode_EncodingEnumToName(ENCODING_DEFAULT), "UTF-8");
   for (const auto &[encoding, text] : {std::pair{400, "400"}, std::pair{-2, "-2"}}) {
      EXPECT_EXIT(
          {
             LogToStandardError();
             Unicode_EncodingEnumToName(encoding);
          },
          testing::ExitedWithCode(1),
          "Unicode_EncodingEnumToName: Unknown encoding " + std::string(text) +
              "\\.\n.*Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:[0-9]+\n");
   }
}

TEST(EncodingId, ResolvesTheCurrentEncoding)
{
   EXPECT_EQ(Unicode_ResolveEncoding(ENCODING_DEFAULT), ENCODING_UTF8);
   EXPECT_EQ(Unicode_ResolveEncoding(ENCODING_UNKNOWN), ENCODING_UNKNOWN);
   EXPECT_EQ(Unicode_ResolveEncoding(170), 170);
   EXPECT_EQ(Unicode_GetCurrentEncodingUncached(), ENCODING_UTF8);
   const std::map<EncodingId, bool> valid = {{0, true}, {323, true}, {324, false}, {-1, false}, {-2, false}};
   for (const auto &[encoding, expected] : valid) {
      EXPECT_EQ(Unicode_IsEncodingValid(encoding), expected) << encoding;
   }
}
