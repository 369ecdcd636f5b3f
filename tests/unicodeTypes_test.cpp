#include "lib/unicode/unicodeSimpleTypes.h"

#include "lib/unicode/data/encodingNames.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

namespace {

constexpr struct {
   const char *preferred;
   EncodingId encoding;
   bool usable;
   uint32_t windowsCodePage;
} expectedRows[] = {
#include "tests/data/encodingRows.inc"
};

const char *PreferredName(const EncodingRow &row)
{
   return row.names.at(static_cast<size_t>(row.preferredIndex));
}

const EncodingRow &RowOf(EncodingId encoding)
{
   return *std::find_if(UNICODE_ENCODINGS.begin(), UNICODE_ENCODINGS.end(),
                        [encoding](const EncodingRow &row) { return row.encoding == encoding; });
}

/* Lookups remember spellings without regard to case, so each starts from nothing. */
EncodingId FreshLookup(const char *name)
{
   UnicodeIANACacheFree();
   return UnicodeIANALookup(name);
}

/* Each preferred name finds its own row, but for the row that repeats an earlier one's name and the row of an identifier
   that has two. */
TEST(EncodingTable, HasTheRowsProgramsRelyOn)
{
   ASSERT_EQ(std::size(expectedRows), UNICODE_ENCODINGS.size());
   std::map<int32_t, int> mibs;
   for (size_t i = 0; i < UNICODE_ENCODINGS.size(); i++) {
      const EncodingRow &row = UNICODE_ENCODINGS[i];
      const char *name = PreferredName(row);
      EXPECT_STREQ(name, expectedRows[i].preferred) << i;
      EXPECT_EQ(row.encoding, expectedRows[i].encoding) << i;
      EXPECT_EQ(row.usable, expectedRows[i].usable) << i;
      EXPECT_EQ(row.windowsCodePage, expectedRows[i].windowsCodePage) << i;
      const auto end = std::find(row.names.begin(), row.names.end(), nullptr);
      EXPECT_EQ(std::set<std::string>(row.names.begin(), end).size(), end - row.names.begin()) << name;
      EXPECT_LE(end - row.names.begin(), 20) << name;
      mibs[row.mib]++;
      const EncodingId expected = row.encoding == 294 ? 29 : row.usable ? row.encoding : ENCODING_UNKNOWN;
      EXPECT_EQ(FreshLookup(name), expected) << name;
      EXPECT_EQ(UnicodeIANALookup(name), expected) << name << ", from the cache";
   }
   /* What shares a number: the rows without one, ISO-8859-6 and ASMO-708, four rows of ISO-2022-JP, and the two spellings
      of ISO-8859-8-I. */
   std::erase_if(mibs, [](const auto &mib) { return mib.second == 1; });
   EXPECT_EQ(mibs, (std::map<int32_t, int>{{-1, 67}, {9, 2}, {39, 4}, {85, 2}}));
   for (EncodingId encoding = 0; encoding < ENCODING_COUNT; encoding++) {
      EXPECT_STREQ(PreferredName(RowOf(encoding)), Unicode_EncodingEnumToName(encoding));
   }
}

/* Of the two of UTF-16 the beginnings and some members are fixed. */
TEST(EncodingTable, HasTheNamesGivenInFull)
{
   const struct {
      EncodingId encoding;
      int32_t mib;
      std::vector<const char *> names, members = {};
   } rows[] = {{7,
                3,
                {"ANSI_X3.4-1968", "iso-ir-6", "ANSI_X3.4-1986", "ISO_646.irv:1991", "ASCII", "ISO646-US",
                 "US-ASCII", "us", "IBM367", "cp367", "csASCII", "646", "ascii7", nullptr}},
               {8,
                4,
                {"ISO_8859-1:1987", "iso-ir-100", "ISO_8859-1", "ISO-8859-1", "latin1", "l1", "IBM819",
                 "CP819", "csISOLatin1", "8859_1", "819", nullptr}},
               {0,
                106,
                {"UTF-8", "ibm-1208", "ibm-1209", "ibm-5304", "ibm-5305", "ibm-13496", "ibm-13497",
                 "ibm-17592", "ibm-17593", "cp1208", nullptr}},
               {35,
                2252,
                {"windows-1252", "ibm-5348_P100-1997", "ibm-5348", "cp1252", "ibm-1252_P100-2000", "ibm-1252",
                 nullptr}},
               {1, 1014, {"UTF-16LE", "x-utf-16le"}, {"UTF16_LittleEndian", "UnicodeLittleUnmarked"}},
               {2, 1013, {"UTF-16BE", "x-utf-16be"}, {"cp1200", "cp1201"}}};
   for (const auto &[encoding, mib, names, members] : rows) {
      const EncodingRow &row = RowOf(encoding);
      EXPECT_EQ(row.mib, mib);
      for (size_t i = 0; i < names.size(); i++) {
         EXPECT_STREQ(row.names.at(i), names[i]);
      }
      for (const char *name : members) {
         EXPECT_EQ(FreshLookup(name), encoding) << name;
      }
   }
}

TEST(UnicodeIANALookup, FindsCodePagesExactNamesAndLooseOnes)
{
   const std::pair<EncodingId, std::vector<const char *>> cases[] = {
       {0, {"UTF-8", "utf-8", "utf8", "UTF_8", "-u.t f:8-", "windows-65001"}},
       {7, {"us"}},
       {8, {"latin-1"}},
       {13, {"ASMO-708"}},
       {22, {"windows-950", "windows-00950", "windows-4294968246"}},
       {29, {"ISO-2022-JP"}},
       {35, {"windows-1252", "Windows-1252", "WINDOWS-1252"}},
       {107, {"ISO-8859-8-I"}},
       {170, {"Windows-31J", "windows-31j"}},
       {293, {"csISO2022JP"}},
       {318, {"windows-949-2000"}},
       {ENCODING_UNKNOWN,
        {"WINDOWS-65001", "ibm-813", "iso-8859-8-i", "windows-", "windows-12x", "", "--", "utf", "utf88"}}};
   for (const auto &[encoding, names] : cases) {
      for (const char *name : names) {
         EXPECT_EQ(FreshLookup(name), encoding) << name;
      }
   }
   const CapturedLog log;
   for (const char *name : {"no-Such", "no-Such", "ibm-813", "ibm-813", "windows-4294967295"}) {
      EXPECT_EQ(UnicodeIANALookup(name), ENCODING_UNKNOWN) << "4294967295 marks a row without a code page";
   }
   const std::string line = "UnicodeIANALookup: Did not find an IANA match for encoding \"no-Such\"\n";
   EXPECT_EQ(log.Text(),
             line + line +
                 "UnicodeIANALookup: Did not find an IANA match for encoding \"windows-4294967295\"\n")
       << "an unknown name every time, an unusable one never";
}

/* The cache holds the first spelling's row for all spellings that differ in case only. */
TEST(UnicodeIANALookup, AnswersFromTheCacheWithoutRegardToCase)
{
   EXPECT_EQ(FreshLookup("iso-8859-8-i"), ENCODING_UNKNOWN);
   EXPECT_EQ(UnicodeIANALookup("ISO-8859-8-I"), ENCODING_UNKNOWN);
   EXPECT_EQ(FreshLookup("ISO-8859-8-I"), 107);
   EXPECT_EQ(UnicodeIANALookup("iso-8859-8-i"), 107);
   EXPECT_EQ(UnicodeIANALookup("windows-65001"), 0);
   EXPECT_EQ(UnicodeIANALookup("WINDOWS-65001"), 0);
}

TEST(UnicodeIANALookup, IsSafeOnManyThreadsAtOnce)
{
   const std::vector<std::pair<const char *, EncodingId>> names = {
       {"UTF-8", 0}, {"latin1", 8}, {"windows-1252", 35}, {"ibm-813", -2}, {"Utf 16 le", 1}, {"Big5", 22}};
   for (int round = 0; round < 50; round++) {
      UnicodeIANACacheFree();
      OnThreads(4, [&names](size_t thread) {
         for (size_t k = 0; k < 3 * names.size(); k++) {
            const auto &[name, encoding] = names[(thread + k) % names.size()];
            EXPECT_EQ(UnicodeIANALookup(name), encoding);
            EXPECT_EQ(Unicode_GetCurrentEncoding(), ENCODING_UTF8);
         }
      });
   }
}

TEST(EncodingId, StandsForANameOrEndsTheProcess)
{
   EXPECT_STREQ(Unicode_EncodingEnumToName(ENCODING_DEFAULT), "UTF-8");
   for (const EncodingId encoding : {400, -2}) {
      EXPECT_EXIT(
          {
             LogToStandardError();
             Unicode_EncodingEnumToName(encoding);
          },
          testing::ExitedWithCode(1),
          "Unicode_EncodingEnumToName: Unknown encoding " + std::to_string(encoding) +
              "\\.\n.*Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:[0-9]+\n");
   }
   for (const auto &[encoding, resolved] :
        {std::pair{ENCODING_DEFAULT, ENCODING_UTF8}, {-2, -2}, {170, 170}}) {
      EXPECT_EQ(Unicode_ResolveEncoding(encoding), resolved);
   }
   for (const auto &[encoding, valid] :
        {std::pair{0, true}, {323, true}, {324, false}, {-1, false}, {-2, false}}) {
      EXPECT_EQ(Unicode_IsEncodingValid(encoding), valid) << encoding;
   }
   EXPECT_EQ(Unicode_GetCurrentEncodingUncached(), ENCODING_UTF8);
}

} // namespace
