#include "fuzz/support/fuzz.h"
#include "lib/string/bsd_vsnprintf.h"
#include "lib/string/str.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <span>
#include <variant>
#include <vector>

/* A format of up to three directives, with arguments of the types it asks for, numbered or in order, gives what the C
   library's vsnprintf gives, with the same result and the same %n, where the two promise the same; where only
   the spelling differs each has its own. The same comes out of a new string and of a buffer: there its first
   bytes, without a character cut in two where the result says that it did not fit, and nothing beyond the
   buffer. Digit groups follow the rule of struct lconv. */

namespace {

/* What arguments are passed as. */
using Argument = std::variant<int, long, double, long double, const void *>;
constexpr size_t MAX_ARGUMENTS = 4;
constexpr size_t FAR_ARGUMENTS = 12;

int64_t counted; /* By %n. */

/* A format and its arguments, as one of the engines takes them. */
struct Side {
   std::string format;
   std::vector<Argument> arguments;
   bool numbered = false;

   /* Takes the next argument; its number as it is written, if numbers are. */
   std::string Add(Argument argument)
   {
      arguments.push_back(argument);
      return numbered ? std::to_string(arguments.size()) + "$" : "";
   }
};

struct Printed {
   int result;
   std::string text;
   int64_t count;

   bool operator==(const Printed &) const = default;
};

using Printer = Printed (*)(size_t size, const char *format, ...);

Printed Theirs(size_t /*size*/, const char *format, ...)
{
   static std::array<char, size_t{1} << 15> buffer;
   va_list args;

   counted = -1;
   va_start(args, format);
   const int result = vsnprintf(buffer.data(), buffer.size(), format, args);
   va_end(args);
   REQUIRE(result < static_cast<int>(buffer.size()));
   return {result, {buffer.data(), result < 0 ? 0 : static_cast<size_t>(result)}, counted};
}

Printed Allocated(size_t /*size*/, const char *format, ...)
{
   va_list args;
   size_t length = SIZE_MAX;

   counted = -1;
   va_start(args, format);
   const std::unique_ptr<char, Freed> text(Str_Vasprintf(&length, format, args));
   va_end(args);
   if (text == nullptr) {
      REQUIRE(length == SIZE_MAX);
      return {-1, {}, counted};
   }
   REQUIRE(text.get()[length] == '\0');
   return {static_cast<int>(length), {text.get(), length}, counted};
}

/* The bytes stored, without the NUL. */
Printed Bounded(size_t size, const char *format, ...)
{
   const Exactly buffer(std::string(size, '#'));
   char *output = buffer.bytes.get();
   va_list args;

   counted = -1;
   va_start(args, format);
   const int result = Fmt_VsnprintfCLocale(&output, size, format, args);
   va_end(args);
   REQUIRE(output == buffer.bytes.get());
   const size_t stored = result < 0 || size == 0 ? 0 : std::min(static_cast<size_t>(result), size - 1);
   REQUIRE(result < 0 || size == 0 || output[stored] == '\0');
   return {result, {output, stored}, counted};
}

Printed Repaired(size_t size, const char *format, ...)
{
   const Exactly buffer(std::string(size, '#'));
   va_list args;

   counted = -1;
   va_start(args, format);
   const int result = Str_Vsnprintf(buffer.bytes.get(), size, format, args);
   va_end(args);
   const size_t length = Str_Strlen(buffer.bytes.get(), size);
   REQUIRE(size == 0 || length < size);
   /* A text that fits may hold a NUL of its own. */
   return {result, {buffer.bytes.get(), result < 0 ? length : static_cast<size_t>(result)}, counted};
}

/* Passes the arguments each by its type, and behind them integers that only a number reaches. */
template <typename... Passed>
Printed Apply(Printer printer, size_t size, const char *format, std::span<const Argument> rest,
              Passed... passed)
{
   if (rest.empty()) {
      return printer(size, format, passed..., 10, -20, 30, -40, 50, -60, 70, -80, 90, -100, 110, -120);
   }
   if constexpr (sizeof...(Passed) < MAX_ARGUMENTS) {
      return std::visit(
          [&](auto argument) { return Apply(printer, size, format, rest.subspan(1), passed..., argument); },
          rest.front());
   }
   abort();
}

Printed Print(Printer printer, const Side &side, size_t size = 0)
{
   return Apply(printer, size, side.format.c_str(), side.arguments);
}

/* Builds the same directives for both engines. */
class Builder {
 public:
   explicit Builder(FuzzedDataProvider *input) : input_(*input)
   {
      ours.numbered = theirs.numbered = input_.ConsumeBool();
      backwards_ = ours.numbered && input_.ConsumeBool();
   }

   bool HasRoom() const
   {
      return std::max(ours.arguments.size(), theirs.arguments.size()) + 3 <= MAX_ARGUMENTS;
   }

   void AddDirective()
   {
      directive_ = {};
      TakeFlags();
      switch (input_.ConsumeIntegralInRange(0, 6)) {
      case 0:
         AddText();
         break;
      case 1:
         AddCount();
         break;
      case 2:
      case 3:
         AddReal();
         break;
      case 4:
         AddOther();
         break;
      default:
         AddInteger();
         break;
      }
   }

   void AddLiteral()
   {
      std::string text;
      for (const char c : input_.ConsumeRandomLengthString(12)) {
         text += c == '\0' ? "%%" : c == '%' ? "%%" : std::string(1, c);
      }
      Put(text, text);
   }

   /* Last: numbers that leave out others, which are then taken for integers. */
   void AddFarArgument()
   {
      if (ours.numbered && input_.ConsumeBool()) {
         const auto far = input_.ConsumeIntegralInRange<size_t>(1, FAR_ARGUMENTS);
         const auto write = [far](const Side &side) {
            return "%" + std::to_string(side.arguments.size() + far) + "$d";
         };
         Put(write(ours), write(theirs));
      }
   }

   Side ours;
   Side theirs;

 private:
   /* What stands between '%' and the conversion, the same for both. */
   struct Directive {
      std::string flags;
      std::optional<int> width;
      std::optional<int> precision;
      bool starWidth;
      bool starPrecision;
   };

   void TakeFlags()
   {
      for (const char flag : std::string_view("-+ #0'")) {
         if (input_.ConsumeIntegralInRange(0, 3) == 0) {
            directive_.flags += flag;
         }
      }
      if (input_.ConsumeBool()) {
         directive_.starWidth = input_.ConsumeBool();
         directive_.width = input_.ConsumeIntegralInRange(directive_.starWidth ? -300 : 1, 300);
         if (*directive_.width < 0 && ours.numbered) {
            DropFlag('0'); /* Theirs pads on the right with zeros then. */
         }
      }
      if (input_.ConsumeBool()) {
         directive_.starPrecision = input_.ConsumeBool();
         directive_.precision = input_.ConsumeIntegralInRange(directive_.starPrecision ? -2 : 0, 400);
      }
   }

   void DropFlag(char flag)
   {
      std::erase(directive_.flags, flag);
   }

   void Put(const std::string &oursText, const std::string &theirsText)
   {
      ours.format = backwards_ ? oursText + ours.format : ours.format + oursText;
      theirs.format = backwards_ ? theirsText + theirs.format : theirs.format + theirsText;
   }

   std::string Write(Side *side, std::string_view size, std::string_view conversion, Argument argument,
                     bool sizeFirst)
   {
      std::string text = directive_.flags;
      if (directive_.width) {
         text +=
             directive_.starWidth ? "*" + side->Add(*directive_.width) : std::to_string(*directive_.width);
      }
      if (directive_.precision) {
         text += "." + (directive_.starPrecision ? "*" + side->Add(*directive_.precision)
                                                 : std::to_string(*directive_.precision));
      }
      text = sizeFirst ? std::string(size) + text : text + std::string(size);
      return "%" + side->Add(argument) + text + std::string(conversion);
   }

   void PutBoth(std::string_view oursSize, std::string_view oursConversion, Argument oursArgument,
                std::string_view theirsSize, std::string_view theirsConversion, Argument theirsArgument)
   {
      /* Flags, width, precision and size come in any order here, but digits run together. */
      const bool sizeFirst = oursSize.find('I') == std::string_view::npos && input_.ConsumeBool();
      const std::string oursText = Write(&ours, oursSize, oursConversion, oursArgument, sizeFirst);
      Put(oursText, Write(&theirs, theirsSize, theirsConversion, theirsArgument, false));
   }

   void AddInteger()
   {
      static constexpr struct {
         const char *ours, *theirs;
         bool wide;
      } sizes[] = {{"", "", false},  {"h", "h", false},  {"hh", "hh", false}, {"I32", "", false},
                   {"l", "l", true}, {"ll", "ll", true}, {"q", "ll", true},   {"L", "ll", true},
                   {"j", "j", true}, {"z", "z", true},   {"Z", "z", true},    {"t", "t", true},
                   {"I", "z", true}, {"I64", "ll", true}};
      const auto value = input_.ConsumeIntegral<long>();
      if (input_.ConsumeIntegralInRange(0, 7) == 0) {
         const char capital = input_.PickValueInArray({'D', 'O', 'U'});
         const char small = static_cast<char>(capital | 0x20);
         PutBoth("", {&capital, 1}, value, "l", {&small, 1}, value);
         return;
      }
      const auto &size = input_.PickValueInArray(sizes);
      const char conversion = input_.PickValueInArray({'d', 'i', 'u', 'o', 'x', 'X'});
      const Argument argument = size.wide ? Argument(value) : Argument(static_cast<int>(value));
      PutBoth(size.ours, {&conversion, 1}, argument, size.theirs, {&conversion, 1}, argument);
   }

   double TakeReal()
   {
      switch (input_.ConsumeIntegralInRange(0, 4)) {
      case 0:
         return static_cast<double>(input_.ConsumeIntegral<int32_t>()) / 8;
      case 1:
         return static_cast<double>(input_.ConsumeIntegral<int32_t>()) *
                std::pow(10.0, input_.ConsumeIntegralInRange(-30, 30));
      case 2:
         return input_.PickValueInArray({INFINITY, -INFINITY, NAN, 0.0F, -0.0F});
      default:
         break;
      }
      const auto bits = input_.ConsumeIntegral<uint64_t>();
      double value;
      memcpy(&value, &bits, sizeof value);
      return std::isnan(value) ? std::fabs(value) : value;
   }

   void AddReal()
   {
      const char conversion = input_.PickValueInArray({'e', 'E', 'f', 'F', 'g', 'G'});
      const double value = TakeReal();
      if (!std::isfinite(value)) {
         DropFlag('0'); /* Theirs pads these with blanks all the same. */
      }
      /* Without a place after the point halves go away from zero here. */
      const bool places = (conversion | 0x20) != 'f' || directive_.precision.value_or(-1) != 0;
      const double theirValue = places ? value : std::round(value);
      if (input_.ConsumeBool()) {
         /* A long double counts only as far as a double goes. */
         const long double longValue =
             std::isfinite(value) ? std::nextafter(static_cast<long double>(value), 0.0L) : value;
         const auto narrowed = static_cast<double>(longValue);
         PutBoth(input_.PickValueInArray({"L", "ll", "q"}), {&conversion, 1}, longValue, "L",
                 {&conversion, 1}, static_cast<long double>(places ? narrowed : std::round(narrowed)));
         return;
      }
      PutBoth("", {&conversion, 1}, value, "", {&conversion, 1}, theirValue);
   }

   void AddText()
   {
      DropFlag('0'); /* Pads with zeros here, with blanks or not at all there. */
      if (input_.ConsumeBool()) {
         /* Where a precision cuts is the business of another target: ASCII, or no precision. */
         std::string text = AsString(input_.ConsumeRandomLengthString(40));
         for (char &c : text) {
            c = directive_.precision ? static_cast<char>(c & 0x7F) : c;
         }
         strings_.push_back(AsString(text));
         const Argument argument = static_cast<const void *>(strings_.back().c_str());
         PutBoth("", "s", argument, "", "s", argument);
         return;
      }
      std::wstring wide;
      for (size_t i = input_.ConsumeIntegralInRange<size_t>(0, 8); i > 0; i--) {
         const auto c = input_.ConsumeIntegralInRange<uint32_t>(1, 0x10FFFF);
         wide += static_cast<wchar_t>((c & 0xFFFFF800) == 0xD800 ? 0x20AC : c);
      }
      wideStrings_.push_back(wide);
      const Argument argument = static_cast<const void *>(wideStrings_.back().c_str());
      PutBoth("l", "s", argument, "l", "s", argument);
   }

   void AddCount()
   {
      static constexpr std::string_view sizes[] = {"", "h", "hh", "l", "ll", "j", "z", "t"};
      directive_ = {};
      const std::string_view size = input_.PickValueInArray(sizes);
      const Argument argument = static_cast<const void *>(&counted);
      PutBoth(size, "n", argument, size, "n", argument);
   }

   void AddOther()
   {
      DropFlag('0');
      directive_.precision.reset();
      const auto value = input_.ConsumeIntegral<long>();
      switch (input_.ConsumeIntegralInRange(0, 3)) {
      case 0: {
         const Argument c = static_cast<int>(value);
         PutBoth("", "c", c, "", "c", c);
         break;
      }
      case 1: {
         /* What has no form in the locale fails both. */
         const Argument c = static_cast<int>(value & 0x1FFFFF);
         const bool capital = input_.ConsumeBool();
         PutBoth(capital ? "" : "l", capital ? "C" : "c", c, "l", "c", c);
         break;
      }
      case 2:
         DropFlag('#');
         PutBoth("", "p", reinterpret_cast<const void *>(value), "l", "X", value);
         break;
      default: {
         /* A character that is no conversion stands for itself and takes no argument. */
         static constexpr char unknown[] = {'%', 'a', 'A', 'y', 'b', 'k', '!', '\x80', '\n', '{'};
         const char c = input_.PickValueInArray(unknown);
         directive_.starWidth = false;
         if (directive_.width) {
            directive_.width = std::abs(*directive_.width) + 1;
         }
         const Argument theirArgument = static_cast<int>(c);
         const size_t before = ours.arguments.size();
         const std::string oursText = Write(&ours, "", {&c, 1}, 0, false);
         ours.arguments.resize(before);
         if (ours.numbered) {
            const std::string plain = "%" + oursText.substr(oursText.find('$') + 1);
            Put(plain, Write(&theirs, "", "c", theirArgument, false));
         } else {
            Put(oursText, Write(&theirs, "", "c", theirArgument, false));
         }
         break;
      }
      }
   }

   FuzzedDataProvider &input_;
   bool backwards_;
   Directive directive_;
   std::deque<std::string> strings_;
   std::deque<std::wstring> wideStrings_;
};

void CheckAgainstTheirs(FuzzedDataProvider *input)
{
   const size_t cut = input->ConsumeIntegralInRange<size_t>(0, 64);
   const bool fromStart = input->ConsumeBool();
   Builder builder(input);
   builder.AddLiteral();
   for (int i = 0; i < 3 && builder.HasRoom() && input->remaining_bytes() > 0; i++) {
      builder.AddDirective();
      builder.AddLiteral();
   }
   builder.AddFarArgument();

   const Printed theirs = Print(Theirs, builder.theirs);
   const Printed ours = Print(Allocated, builder.ours);
   if (ours.result != theirs.result || (theirs.result >= 0 && !(ours == theirs))) {
      Fuzz_Show("our format", builder.ours.format);
      Fuzz_Show("their format", builder.theirs.format);
      Fuzz_Show("ours", ours.text);
      Fuzz_Show("theirs", theirs.text);
      REQUIRE(ours.result == theirs.result && ours.count == theirs.count && ours.text == theirs.text);
   }

   const size_t size = fromStart ? cut : theirs.text.size() + 2 - std::min(cut, theirs.text.size() + 2);
   const Printed bounded = Print(Bounded, builder.ours, size);
   const Printed repaired = Print(Repaired, builder.ours, size);
   REQUIRE(bounded.result == theirs.result);
   if (theirs.result < 0) {
      REQUIRE(repaired.result == -1);
      return;
   }
   const std::string stored = theirs.text.substr(0, size == 0 ? 0 : size - 1);
   REQUIRE(bounded.text == stored && bounded.count == theirs.count);
   const bool fits = theirs.text.size() < size;
   REQUIRE(repaired.result == (fits ? theirs.result : -1) && repaired.count == theirs.count);
   REQUIRE(repaired.text == (fits ? stored : AsString(std::string(WithoutPartialEnd(stored)))));
}

/* Separators from the right, each group as large as its byte says, the last for all that follow, 127 for no more. */
std::string Grouped(std::string digits, const std::string &grouping, char separator)
{
   size_t group = 0;
   for (size_t left = digits.size(); group < grouping.size();) {
      const auto length = static_cast<size_t>(grouping[group]);
      if (length == 127 || length >= left) {
         break;
      }
      left -= length;
      digits.insert(left, 1, separator);
      group += group + 1 < grouping.size() ? 1 : 0;
   }
   return digits;
}

std::string FormatGrouped(const char *grouping, char separator, const char *point, const char *format, ...)
{
   va_list args;
   char *output = nullptr;

   va_start(args, format);
   const int result = Fmt_Format(&output, grouping, separator, point, 0, format, args);
   va_end(args);
   REQUIRE(result >= 0);
   const std::unique_ptr<char, Freed> owned(output);
   return {output, static_cast<size_t>(result)};
}

void CheckGroups(FuzzedDataProvider *input)
{
   std::string grouping;
   for (size_t i = input->ConsumeIntegralInRange<size_t>(0, 4); i > 0; i--) {
      grouping += static_cast<char>(input->ConsumeBool() ? input->ConsumeIntegralInRange(1, 5)
                                                         : input->ConsumeIntegralInRange(1, 127));
   }
   const char separator = input->ConsumeIntegralInRange('!', '~');
   const std::string point = AsString(input->ConsumeRandomLengthString(5));
   const auto value = input->ConsumeIntegral<uint64_t>();
   const auto width = input->ConsumeIntegralInRange<size_t>(0, 60);
   const int places = input->ConsumeIntegralInRange(1, 20);
   const double real = std::ldexp(static_cast<double>(value), input->ConsumeIntegralInRange(-64, 900));
   const auto padded = [width](const std::string &text) {
      return std::string(width - std::min(width, text.size()), ' ') + text;
   };

   const std::string digits = Grouped(std::to_string(value), grouping, separator);
   const char *const given = grouping.c_str();
   REQUIRE(FormatGrouped(given, separator, point.c_str(), "%'*llu", static_cast<int>(width),
                         static_cast<unsigned long long>(value)) == padded(digits));
   REQUIRE(FormatGrouped(given, separator, point.c_str(), "%'-*llu|", static_cast<int>(width),
                         static_cast<unsigned long long>(value)) ==
           digits + padded("").substr(std::min(width, digits.size())) + "|");

   const std::string fixed = Print(Theirs, {"%.*f", {places, real}}).text;
   const size_t integerLength = fixed.find('.');
   REQUIRE(FormatGrouped(given, separator, point.c_str(), "%'*.*f", static_cast<int>(width), places, real) ==
           padded(Grouped(fixed.substr(0, integerLength), grouping, separator) + point +
                  fixed.substr(integerLength + 1)));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static const char *const locale = setlocale(LC_ALL, "C.UTF-8");
   REQUIRE(locale != nullptr);
   FuzzedDataProvider input(data, size);
   if (input.ConsumeIntegralInRange(0, 7) == 0) {
      CheckGroups(&input);
   } else {
      CheckAgainstTheirs(&input);
   }
   return 0;
}
