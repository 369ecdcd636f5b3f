#include "fuzz/support/fuzz.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <algorithm>

/* The operations on code points, for any ranges, held against each other and against the bytes of UTF-8, which sort and
   are found as code points do. Text that is not UTF-8 ends the process, in whichever operand it is. */

namespace {

struct Operand {
   std::string text;
   ssize_t start;
   ssize_t length;
};

/* Any bytes, or characters that have something to do with each other: few enough to meet. */
std::string TakeText(FuzzedDataProvider *input)
{
   static constexpr const char *related[] = {"a", "A", "b",  "é",      "É",         "ſ",
                                             "S", "ß", "Ａ", "\uFFFD", "\U00010400"};
   if (input->ConsumeBool()) {
      return AsString(input->ConsumeRandomLengthString(64));
   }
   std::string text;
   for (size_t i = input->ConsumeIntegralInRange<size_t>(0, 12); i > 0; i--) {
      text += input->PickValueInArray(related);
   }
   return text;
}

Operand TakeOperand(FuzzedDataProvider *input)
{
   const bool small = input->ConsumeIntegralInRange(0, 15) != 0;
   const ssize_t start =
       small ? input->ConsumeIntegralInRange<ssize_t>(-1, 20) : input->ConsumeIntegral<ssize_t>();
   const ssize_t length =
       small ? input->ConsumeIntegralInRange<ssize_t>(-2, 20) : input->ConsumeIntegral<ssize_t>();
   return {TakeText(input), start, length};
}

std::string Slice(const Operand &operand)
{
   return Take(Unicode_Substr(operand.text.c_str(), operand.start, operand.length));
}

ssize_t Count(const std::string &text)
{
   return Unicode_LengthInCodePoints(text.c_str());
}

/* What lies before the range, the range, and what lies behind it are the whole. */
void CheckSlices(const Operand &operand)
{
   const ssize_t count = Count(operand.text);
   const ssize_t start = operand.start < 0 ? count : std::min(operand.start, count);
   const std::string before = Take(Unicode_Substr(operand.text.c_str(), 0, start));
   const std::string slice = Slice(operand);
   const std::string after = Take(Unicode_Substr(operand.text.c_str(), start + Count(slice), -1));
   REQUIRE(Count(before) == start);
   REQUIRE(Count(slice) == (operand.length < 0 ? count - start : std::min(operand.length, count - start)));
   REQUIRE_SAME(before + slice + after, operand.text);
   REQUIRE_SAME(
       Take(Unicode_ReplaceRange(operand.text.c_str(), operand.start, operand.length, "x\u20ACy", 1, 1)),
       before + "\u20AC" + after);
}

void CheckFind(const Operand &in, const Operand &sought)
{
   const std::string slice = Slice(in);
   const std::string part = Slice(sought);
   const ssize_t count = Count(in.text);
   const auto expected = [&](size_t found) {
      const ssize_t start = in.start < 0 ? count : std::min(in.start, count);
      return found == std::string::npos ? -1 : start + Count(slice.substr(0, found));
   };
   REQUIRE(Unicode_FindSubstrInRange(in.text.c_str(), in.start, in.length, sought.text.c_str(), sought.start,
                                     sought.length) == expected(slice.find(part)));
   /* An empty part is found at the start, by both. */
   REQUIRE(Unicode_FindLastSubstrInRange(in.text.c_str(), in.start, in.length, sought.text.c_str(),
                                         sought.start,
                                         sought.length) == expected(part.empty() ? 0 : slice.rfind(part)));
}

int Compare(const Operand &left, const Operand &right, bool ignoreCase)
{
   return Unicode_CompareRange(left.text.c_str(), left.start, left.length, right.text.c_str(), right.start,
                               right.length, ignoreCase);
}

void CheckCompare(const Operand &left, const Operand &right)
{
   const int order = Slice(left).compare(Slice(right));
   REQUIRE(Compare(left, right, false) == (order > 0) - (order < 0));
   REQUIRE(Compare(left, right, true) == -Compare(right, left, true));
   REQUIRE(order != 0 || Compare(left, right, true) == 0);
}

/* Looser text, which only some of the operations can tell from UTF-8, may pass; what is no text at all must not. */
void CheckRefusal(const Operand &operand, const Operand &other)
{
   if (Count(operand.text) >= 0) {
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
   const Operand one = TakeOperand(&input);
   const Operand two = TakeOperand(&input);
   REQUIRE_SAME(Take(Unicode_Join(one.text.c_str(), two.text.c_str(), one.text.c_str(), nullptr)),
                one.text + two.text + one.text);
   if (CodeSet_IsValidUtf8(one.text.c_str()) && CodeSet_IsValidUtf8(two.text.c_str())) {
      CheckSlices(one);
      CheckFind(one, two);
      CheckCompare(one, two);
   } else {
      CheckRefusal(one, two);
      CheckRefusal(two, one);
   }
   return 0;
}
