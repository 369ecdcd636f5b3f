#include "fuzz/support/fuzz.h"
#include "lib/string/str.h"

#include <algorithm>
#include <array>
#include <bit>
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
   buffer. */

namespace {

/* What arguments are passed as. */
using Argument = std::variant<int, long, double, long double, const void *>;
constexpr size_t MAX_ARGUMENTS = 4;
constexpr size_t FAR_ARGUMENTS = 12;

int64_t counted; /* By %n. */

struct Printed {
   int result;
   std::string text;
   int64_t count;
};

using Engine = Printed (*)(size_t size, const char *format, va_list args);

Printed Theirs(size_t /*size*/, const char *format, va_list args)
{
   static std::array<char, size_t{1} << 15> buffer;
   const int result = vsnprintf(buffer.data(), buffer.size(), format, args);

   REQUIRE(result < static_cast<int>(buffer.size()));
   return {result, {buffer.data(), result < 0 ? 0 : static_cast<size_t>(result)}, counted};
}

Printed Allocated(size_t /*size*/, const char *format, va_list args)
{
   size_t length = SIZE_MAX;
   const std::unique_ptr<char, Freed> text(Str_Vasprintf(&length, format, args));

   if (text == nullptr) {
      REQUIRE(length == SIZE_MAX);
      return {-1, {}, counted};
   }
   REQUIRE(text.get()[length] == '\0');
   return {static_cast<int>(length), {text.get(), length}, counted};
}

Printed Bounded(size_t size, const char *format, va_list args)
{
   const Exactly buffer(std::string(size, '#'));
   const int result = Str_Vsnprintf(buffer.bytes.get(), size, format, args);
   const size_t length = Str_Strlen(buffer.bytes.get(), size);

   REQUIRE(size == 0 || length < size);
   /* A text that fits may hold a NUL of its own. */
   return {result, {buffer.bytes.get(), result < 0 ? length : static_cast<size_t>(result)}, counted};
}

Printed Call(Engine engine, size_t size, const char *format, ...)
{
   va_list args;

   counted = -1;
   va_start(args, format);
   Printed printed = engine(size, format, args);
   va_end(args);
   return printed;
}

/* Passes the arguments each by its type, and behind them integers that only a number reaches. */
template <typename... Passed>
Printed Print(Engine engine, const std::string &format, std::span<const Argument> rest, size_t size,
              Passed... passed)
{
   if (rest.empty()) {
      return Call(engine, size, format.c_str(), passed..., 10, -20, 30, -40, 50, -60, 70, -80, 90, -100, 110,
                  -120);
   }
   if constexpr (sizeof...(Passed) < MAX_ARGUMENTS) {
      return std::visit(
          [&](auto argument) { return Print(engine, format, rest.subspan(1), size, passed..., argument); },
          rest.front());
   }
   abort();
}

/* Builds the same directives for both engines. */
class Builder {
 public:
   explicit Builder(FuzzedDataProvider *input) : input_(*input), numbered_(input_.ConsumeBool())
   {
      backwards_ = numbered_ && input_.ConsumeBool();
   }

   bool HasRoom() const
   {
      return ours.size() + 3 <= MAX_ARGUMENTS;
   }

   void AddDirective()
   {
      directive_ = {};
      TakeFlags();
      (this->*input_.PickValueInArray<void (Builder::*)()>({&Builder::AddText, &Builder::AddCount,
                                                            &Builder::AddReal, &Builder::AddInteger,
                                                            &Builder::AddCharacter}))();
   }

   void AddLiteral()
   {
      std::string text;
      for (const char c : input_.ConsumeRandomLengthString(12)) {
         text += c == '\0' || c == '%' ? "%%" : std::string(1, c);
      }
      Put(text, text);
   }

   /* Last: a number that leaves out others, which are then taken for integers. */
   void AddFarArgument()
   {
      if (numbered_ && input_.ConsumeBool()) {
         const auto far = ours.size() + input_.ConsumeIntegralInRange<size_t>(1, FAR_ARGUMENTS);
         Put("%" + std::to_string(far) + "$d", "%" + std::to_string(far) + "$d");
      }
   }

   std::string oursFormat;
   std::string theirsFormat;
   std::vector<Argument> ours;
   std::vector<Argument> theirs;

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
         if (*directive_.width < 0 && numbered_) {
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
      oursFormat = backwards_ ? oursText + oursFormat : oursFormat + oursText;
      theirsFormat = backwards_ ? theirsText + theirsFormat : theirsFormat + theirsText;
   }

   /* Adds an argument; its number as it is written, if numbers are. */
   std::string Add(Argument oursArgument, Argument theirsArgument)
   {
      ours.push_back(oursArgument);
      theirs.push_back(theirsArgument);
      return numbered_ ? std::to_string(ours.size()) + "$" : "";
   }

   std::string Number(int value, bool star)
   {
      return star ? "*" + Add(value, value) : std::to_string(value);
   }

   void PutBoth(const std::string &oursSize, const std::string &oursConversion, Argument oursArgument,
                const std::string &theirsSize, const std::string &theirsConversion, Argument theirsArgument)
   {
      std::string text = directive_.flags;
      if (directive_.width) {
         text += Number(*directive_.width, directive_.starWidth);
      }
      if (directive_.precision) {
         text += "." + Number(*directive_.precision, directive_.starPrecision);
      }
      const std::string start = "%" + Add(oursArgument, theirsArgument);
      /* Flags, width, precision and size come in any order here, but digits run together. */
      const bool sizeFirst = oursSize.find('I') == std::string::npos && input_.ConsumeBool();
      Put(start + (sizeFirst ? oursSize + text : text + oursSize) + oursConversion,
          start + text + theirsSize + theirsConversion);
   }

   /* Where the two spell it alike. */
   void PutSame(const std::string &conversion, Argument argument)
   {
      PutBoth("", conversion, argument, "", conversion, argument);
   }

   void AddInteger()
   {
      const auto value = input_.ConsumeIntegral<long>();
      const std::string conversion(1, input_.PickValueInArray({'d', 'i', 'u', 'o', 'x', 'X'}));
      if (input_.ConsumeBool()) {
         const std::string size = input_.PickValueInArray({"", "h", "hh", "I32"});
         const Argument argument = static_cast<int>(value);
         PutBoth(size, conversion, argument, size == "I32" ? "" : size, conversion, argument);
      } else {
         const std::string size =
             input_.PickValueInArray({"l", "ll", "q", "L", "I64", "j", "z", "Z", "t", "I"});
         PutBoth(size, conversion, value, "l", conversion, value);
      }
   }

   double TakeReal()
   {
      const auto number = input_.ConsumeIntegral<int64_t>();
      const int power = input_.ConsumeIntegralInRange(-30, 30);
      const double value = input_.ConsumeBool() ? static_cast<double>(number >> 32) * std::pow(10.0, power)
                                                : std::bit_cast<double>(number);
      return std::isnan(value) ? std::fabs(value) : value;
   }

   void AddReal()
   {
      const std::string conversion(1, input_.PickValueInArray({'e', 'E', 'f', 'F', 'g', 'G'}));
      double value = TakeReal();
      if (!std::isfinite(value)) {
         DropFlag('0'); /* Theirs pads these with blanks all the same. */
      }
      /* Without a place after the point halves go away from zero here. */
      if ((conversion == "f" || conversion == "F") && directive_.precision == 0) {
         value = std::round(value);
      }
      if (input_.ConsumeBool()) {
         const std::string size = input_.PickValueInArray({"L", "ll", "q"});
         PutBoth(size, conversion, static_cast<long double>(value), "L", conversion,
                 static_cast<long double>(value));
      } else {
         PutSame(conversion, value);
      }
   }

   void AddText()
   {
      DropFlag('0'); /* Pads with zeros here, with blanks or not at all there. */
      /* Where a precision cuts is the business of another target: ASCII, or no precision. */
      strings_.push_back(AsString(input_.ConsumeRandomLengthString(40)));
      for (char &c : strings_.back()) {
         c = directive_.precision && (c & 0x80) != 0 ? 'x' : c;
      }
      PutSame("s", static_cast<const void *>(strings_.back().c_str()));
   }

   void AddCount()
   {
      directive_ = {};
      PutSame(input_.PickValueInArray({"n", "hn", "hhn", "ln", "lln", "jn", "zn", "tn"}),
              static_cast<const void *>(&counted));
   }

   /* A wide one that has no form in the locale fails both. */
   void AddCharacter()
   {
      DropFlag('0');
      directive_.precision.reset();
      PutSame(input_.PickValueInArray({"c", "lc"}), input_.ConsumeIntegralInRange(0, 0x1FFFFF));
   }

   FuzzedDataProvider &input_;
   bool numbered_;
   bool backwards_;
   Directive directive_;
   std::deque<std::string> strings_;
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

   /* What was put before a failure is not compared. */
   const auto shown = [&builder](const Printed &printed, bool failed) {
      const std::string result = builder.oursFormat + " gives " + std::to_string(printed.result);
      return failed ? result : result + ", " + std::to_string(printed.count) + ", " + printed.text;
   };
   Printed theirs = Print(Theirs, builder.theirsFormat, builder.theirs, 0);
   const bool failed = theirs.result < 0;
   REQUIRE_SAME(shown(Print(Allocated, builder.oursFormat, builder.ours, 0), failed), shown(theirs, failed));

   const size_t size = fromStart ? cut : theirs.text.size() + 2 - std::min(cut, theirs.text.size() + 2);
   if (theirs.text.size() >= size) {
      const std::string stored = theirs.text.substr(0, size == 0 ? 0 : size - 1);
      theirs.text = AsString(std::string(WithoutPartialEnd(stored)));
      theirs.result = -1;
   }
   REQUIRE_SAME(shown(Print(Bounded, builder.oursFormat, builder.ours, size), failed), shown(theirs, failed));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static const char *const locale = setlocale(LC_ALL, "C.UTF-8");
   REQUIRE(locale != nullptr);
   FuzzedDataProvider input(data, size);
   CheckAgainstTheirs(&input);
   return 0;
}
