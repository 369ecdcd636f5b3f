#include "fuzz/support/fuzz.h"
#include "lib/unicode/data/caseFolding.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <algorithm>

/* The operations on code points give what the same operations on arrays of code points give, for any ranges. Text that
   is not UTF-8 ends the process, in whichever operand it is. */

namespace {

struct Range {
   ssize_t start;
   ssize_t length;
};

struct Operand {
   std::string text;
   std::optional<std::u32string> codePoints;
   Range range;
};

/* Any bytes, or characters that have something to do with each other: few enough to meet. */
std::string TakeText(FuzzedDataProvider *input)
{
   static constexpr char32_t related[] = {'a',     'A',     'b',     0xE9,    0xC9,   0x17F,
                                          'S',     0xDF,    0xD7FF,  0xE000,  0xFF21, 0xFFFD,
                                          0x10000, 0x10400, 0x1F600, 0x10FFFF};
   if (input->ConsumeBool()) {
      return AsString(input->ConsumeRandomLengthString(64));
   }
   std::u32string text;
   for (size_t i = input->ConsumeIntegralInRange<size_t>(0, 12); i > 0; i--) {
      text += input->PickValueInArray(related);
   }
   return EncodeUtf8(text);
}

Operand TakeOperand(FuzzedDataProvider *input)
{
   Operand operand;
   operand.range.start = input->ConsumeIntegralInRange<ssize_t>(-1, 20);
   operand.range.length = input->ConsumeIntegralInRange<ssize_t>(-2, 20);
   if (input->ConsumeIntegralInRange(0, 15) == 0) {
      operand.range = {input->ConsumeIntegral<ssize_t>(), input->ConsumeIntegral<ssize_t>()};
   }
   operand.text = TakeText(input);
   operand.codePoints = DecodeUtf8(operand.text);
   return operand;
}

size_t Start(const Operand &operand)
{
   const size_t count = operand.codePoints->size();
   return operand.range.start < 0 ? count : std::min(count, static_cast<size_t>(operand.range.start));
}

std::u32string_view Slice(const Operand &operand)
{
   const std::u32string_view rest = std::u32string_view(*operand.codePoints).substr(Start(operand));
   return operand.range.length < 0 ? rest : rest.substr(0, static_cast<size_t>(operand.range.length));
}

void CheckSubstr(const Operand &operand)
{
   const std::string text =
       Take(Unicode_Substr(operand.text.c_str(), operand.range.start, operand.range.length));
   REQUIRE_SAME(text, EncodeUtf8(Slice(operand)));
   REQUIRE(Unicode_LengthInCodePoints(text.c_str()) == static_cast<ssize_t>(Slice(operand).size()));
}

void CheckFind(const Operand &in, const Operand &sought)
{
   const auto expected = [&](size_t found) {
      return found == std::u32string_view::npos ? -1 : static_cast<ssize_t>(Start(in) + found);
   };
   const std::u32string_view slice = Slice(in);
   const std::u32string_view part = Slice(sought);
   REQUIRE(Unicode_FindSubstrInRange(in.text.c_str(), in.range.start, in.range.length, sought.text.c_str(),
                                     sought.range.start, sought.range.length) == expected(slice.find(part)));
   /* An empty part is found at the start, by both. */
   REQUIRE(Unicode_FindLastSubstrInRange(in.text.c_str(), in.range.start, in.range.length,
                                         sought.text.c_str(), sought.range.start, sought.range.length) ==
           expected(part.empty() ? 0 : slice.rfind(part)));
}

void CheckReplace(const Operand &destination, const Operand &source)
{
   std::u32string expected = *destination.codePoints;
   expected.replace(Start(destination), Slice(destination).size(), Slice(source));
   REQUIRE_SAME(
       Take(Unicode_ReplaceRange(destination.text.c_str(), destination.range.start, destination.range.length,
                                 source.text.c_str(), source.range.start, source.range.length)),
       EncodeUtf8(expected));
}

char32_t Folded(char32_t c)
{
   return c < 0x10000 ? CaseFolding_Unit(static_cast<char16_t>(c)) : c;
}

int Compare(const Operand &left, const Operand &right, bool ignoreCase)
{
   return Unicode_CompareRange(left.text.c_str(), left.range.start, left.range.length, right.text.c_str(),
                               right.range.start, right.range.length, ignoreCase);
}

void CheckCompare(const Operand &left, const Operand &right, bool ignoreCase)
{
   std::u32string one(Slice(left));
   std::u32string two(Slice(right));
   if (ignoreCase) {
      std::transform(one.begin(), one.end(), one.begin(), Folded);
      std::transform(two.begin(), two.end(), two.begin(), Folded);
   }
   REQUIRE(Compare(left, right, ignoreCase) == (one < two ? -1 : one == two ? 0 : 1));
}

/* Looser text, which only some of the operations can tell from UTF-8, may pass; what is no text at all must not. */
void CheckRefusal(const Operand &operand, const Operand &other)
{
   if (DecodeUtf8(operand.text, true)) {
      return;
   }
   const char *const bad = operand.text.c_str();
   const char *const good = other.text.c_str();
   REQUIRE(Panics([&] { static_cast<void>(Unicode_Substr(bad, 1, 2)); }));
   REQUIRE(Panics([&] { Unicode_FindSubstrInRange(bad, 0, -1, good, 0, -1); }));
   REQUIRE(Panics([&] { Unicode_FindLastSubstrInRange(good, 0, -1, bad, 0, -1); }));
   REQUIRE(Panics([&] { static_cast<void>(Unicode_ReplaceRange(good, 0, 1, bad, 0, 1)); }));
   REQUIRE(Panics([&] { Unicode_CompareRange(bad, 0, -1, good, 0, -1, false); }));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const bool ignoreCase = input.ConsumeBool();
   const Operand one = TakeOperand(&input);
   const Operand two = TakeOperand(&input);

   REQUIRE_SAME(Take(Unicode_Join(one.text.c_str(), two.text.c_str(), one.text.c_str(), nullptr)),
                one.text + two.text + one.text);
   if (one.codePoints && two.codePoints) {
      CheckSubstr(one);
      CheckFind(one, two);
      CheckReplace(one, two);
      CheckCompare(one, two, ignoreCase);
      CheckCompare(two, one, ignoreCase);
   } else {
      CheckRefusal(one, two);
      CheckRefusal(two, one);
   }
   return 0;
}
