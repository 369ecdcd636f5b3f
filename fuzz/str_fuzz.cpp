#include "fuzz/support/fuzz.h"
#include "lib/string/str.h"

#include <algorithm>
#include <array>
#include <cstring>

/* The bounded copies fill the buffer with what a plain joining of the texts gives, and end the process exactly where that
   does not fit: never a byte beyond the buffer, or of the source beyond what they may read. Searching and
   changing case are what they are for ASCII. */

namespace {

/* A buffer of just its size that holds a text, or as much of it as there is room for. */
Exactly Buffer(const std::string &text, size_t size)
{
   std::string content = text.substr(0, size);
   content.resize(size);
   return Exactly(content);
}

/* The call either leaves the expected text in the buffer and gives it back, or panics for want of room. */
template <typename Call>
void CheckFilled(const Exactly &buffer, const std::optional<std::string> &expected, Call call)
{
   char *returned = nullptr;
   const bool panicked = Panics([&] { returned = call(buffer.bytes.get()); });
   REQUIRE(panicked == !expected.has_value());
   if (panicked) {
      REQUIRE(Fuzz_LastLog().ends_with(" Buffer too small\n"));
   } else {
      REQUIRE(returned == buffer.bytes.get());
      REQUIRE_SAME(std::string(returned), *expected);
   }
}

std::optional<std::string> IfFits(const std::string &text, size_t size)
{
   return text.size() < size ? std::optional(text) : std::nullopt;
}

void CheckCopies(FuzzedDataProvider *input)
{
   const auto size = input->ConsumeIntegralInRange<size_t>(0, 40);
   const auto n = input->ConsumeIntegralInRange<size_t>(0, 40);
   const std::string present = AsString(input->ConsumeRandomLengthString(40));
   const std::string source = RestAsString(input);
   const std::string part = source.substr(0, n);
   /* Without a NUL where no more than n bytes may be read. */
   const Exactly bytes(n <= source.size() ? part : std::string(source.c_str(), source.size() + 1));

   CheckFilled(Buffer("", size), IfFits(source, size),
               [&](char *buffer) { return Str_Strcpy(buffer, source.c_str(), size); });
   CheckFilled(Buffer("", size), IfFits(part, size),
               [&](char *buffer) { return Str_Strncpy(buffer, size, bytes.bytes.get(), n); });
   CheckFilled(Buffer("", size), IfFits(source, size), [&](char *buffer) {
      Str_Sprintf(buffer, size, "%s", source.c_str());
      return buffer;
   });
   /* Two texts that fit together, or do not: the first one does. */
   if (present.size() < size) {
      CheckFilled(Buffer(present, size), IfFits(present + source, size),
                  [&](char *buffer) { return Str_Strcat(buffer, source.c_str(), size); });
      CheckFilled(Buffer(present, size), IfFits(present + part, size),
                  [&](char *buffer) { return Str_Strncat(buffer, size, bytes.bytes.get(), n); });
   }
   REQUIRE(Str_Strlen(bytes.bytes.get(), n) == part.size());
}

void CheckSearch(FuzzedDataProvider *input)
{
   const auto n = input->ConsumeIntegralInRange<size_t>(0, 80);
   const std::string sought = AsString(input->ConsumeRandomLengthString(6));
   const std::string text = RestAsString(input);
   const Exactly bytes(n <= text.size() ? text.substr(0, n) : std::string(text.c_str(), text.size() + 1));
   const size_t place = std::string_view(text).substr(0, n).find(sought);
   const char *found = Str_Strnstr(bytes.bytes.get(), sought.c_str(), n);
   REQUIRE(found == (place == std::string::npos ? nullptr : bytes.bytes.get() + place));
}

void CheckCase(FuzzedDataProvider *input)
{
   const std::string text = RestAsString(input);
   std::string lower = text;
   std::string upper = text;
   for (size_t i = 0; i < text.size(); i++) {
      lower[i] = static_cast<char>(text[i] >= 'A' && text[i] <= 'Z' ? text[i] + 32 : text[i]);
      upper[i] = static_cast<char>(text[i] >= 'a' && text[i] <= 'z' ? text[i] - 32 : text[i]);
   }
   const Exactly first(std::string(text.c_str(), text.size() + 1));
   REQUIRE_SAME(Str_ToLower(first.bytes.get()), lower);
   const Exactly second(std::string(text.c_str(), text.size() + 1));
   REQUIRE_SAME(Str_ToUpper(second.bytes.get()), upper);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const auto check = input.PickValueInArray({CheckCopies, CheckCopies, CheckSearch, CheckCase});
   check(&input);
   return 0;
}
