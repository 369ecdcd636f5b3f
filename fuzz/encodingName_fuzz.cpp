#include "fuzz/support/fuzz.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/unicode/data/encodingNames.h"

#include <algorithm>
#include <map>

/* A name finds the row that a plain search of the table finds: by code page, exactly, or by letters and digits. The
   second lookup of a spelling gives what the first gave. A miss, and nothing else, is logged, every time. The
   preferred name of what was found finds it again. */

namespace {

constexpr const EncodingRow *NO_ROW = nullptr;

std::string Loose(std::string_view name)
{
   std::string loose;
   for (const char c : name) {
      const char lower = static_cast<char>(c | 0x20);
      if (c >= '0' && c <= '9') {
         loose += c;
      } else if (lower >= 'a' && lower <= 'z') {
         loose += lower;
      }
   }
   return loose;
}

const EncodingRow *FindByCodePage(std::string_view name)
{
   if (!name.starts_with("windows-") && !name.starts_with("Windows-")) {
      return NO_ROW;
   }
   uint32_t codePage = 0;
   for (const char c : name.substr(8)) {
      if (c < '0' || c > '9') {
         return NO_ROW;
      }
      codePage = codePage * 10 + static_cast<uint32_t>(c - '0');
   }
   const auto row =
       std::find_if(UNICODE_ENCODINGS.begin(), UNICODE_ENCODINGS.end(),
                    [codePage](const EncodingRow &each) { return each.windowsCodePage == codePage; });
   return codePage == NO_CODE_PAGE || row == UNICODE_ENCODINGS.end() ? NO_ROW : &*row;
}

/* The first row for each name, as it is written or in its loose form. */
using Index = std::map<std::string, const EncodingRow *>;

template <typename Form> Index MakeIndex(Form form)
{
   Index index;
   for (const EncodingRow &row : UNICODE_ENCODINGS) {
      for (auto name = row.names.begin(); *name != nullptr; name++) {
         index.emplace(form(*name), &row);
      }
   }
   return index;
}

const EncodingRow *Find(const Index &index, const std::string &name)
{
   const auto found = index.find(name);
   return found == index.end() ? NO_ROW : found->second;
}

const EncodingRow *Expected(const std::string &name)
{
   static const Index exact = MakeIndex([](const char *form) { return std::string(form); });
   static const Index loose = MakeIndex(Loose);
   if (const EncodingRow *row = FindByCodePage(name); row != NO_ROW) {
      return row;
   }
   if (const EncodingRow *row = Find(exact, name); row != NO_ROW) {
      return row;
   }
   return Find(loose, Loose(name));
}

/* A name of the table, or that of one of its code pages, and the bytes of the input where it says so in their places. */
std::string TakeName(FuzzedDataProvider *input)
{
   const auto kind = input->ConsumeIntegralInRange(0, 3);
   if (kind == 0) {
      return RestAsString(input);
   }
   const EncodingRow &row = input->PickValueInArray(UNICODE_ENCODINGS);
   const auto &names = row.names;
   const auto count = static_cast<size_t>(std::find(names.begin(), names.end(), nullptr) - names.begin());
   std::string name = kind == 1 ? "windows-" + std::to_string(row.windowsCodePage)
                                : names[input->ConsumeIntegralInRange<size_t>(0, count - 1)];
   for (char &c : name) {
      switch (input->remaining_bytes() > 0 ? input->ConsumeIntegralInRange(0, 15) : 0) {
      case 1:
         c = static_cast<char>(c ^ 0x20);
         break;
      case 2:
         c = input->ConsumeIntegral<char>();
         break;
      default:
         break;
      }
   }
   return AsString(name + input->ConsumeRemainingBytesAsString());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const std::string name = TakeName(&input);
   const EncodingRow *row = Expected(name);
   const EncodingId expected = row != NO_ROW && row->usable ? row->encoding : ENCODING_UNKNOWN;

   UnicodeIANACacheFree(); /* Another spelling may have found something else. */
   for (int i = 0; i < 2; i++) {
      const size_t logged = Fuzz_LogCount();
      REQUIRE(UnicodeIANALookup(name.c_str()) == expected);
      REQUIRE(Fuzz_LogCount() - logged == (row == NO_ROW ? 1 : 0));
   }
   REQUIRE(CodeSet_IsEncodingSupported(name.c_str()) == (expected != ENCODING_UNKNOWN));
   if (expected != ENCODING_UNKNOWN) {
      REQUIRE(Unicode_IsEncodingValid(expected));
      REQUIRE(UnicodeIANALookup(Unicode_EncodingEnumToName(expected)) == expected);
   }
   return 0;
}
