#include "fuzz/support/fuzz.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/engine.h"
#include "lib/misc/codeset/conversion/icu.h"
#include "lib/misc/codeset/conversion/utf8.h"
#include "lib/misc/memory/dynbuf.h"
#include "platform/processor.h"

#include <algorithm>
#include <array>
#include <cstring>

/* Conversions in every mode on both engines. A failed one hands nothing back; a result is terminated for any width of
   unit, and the same whether it is allocated or appended. Between the encodings that both engines know they
   agree, where nothing is to be replaced, to the byte; the built-in one gives the pairs that it promises and
   no others. What ICU takes from an encoding is valid UTF-8, and what it puts back means the same. Normal
   forms are normal. */

namespace {

constexpr std::array<std::string_view, 5> KNOWN = {"UTF-8", "UTF-16LE", "UTF-16BE", "US-ASCII", "ISO-8859-1"};

/* Of every kind that ICU has: tables of one byte and of more, with states, with signatures, algorithmic. */
constexpr std::array<const char *, 24> ON_ICU = {"UTF-8",
                                                 "UTF-16LE",
                                                 "UTF-16BE",
                                                 "UTF-16",
                                                 "UTF-32",
                                                 "UTF-32LE",
                                                 "UTF-32BE",
                                                 "UTF-7",
                                                 "CESU-8",
                                                 "SCSU",
                                                 "BOCU-1",
                                                 "US-ASCII",
                                                 "ISO-8859-1",
                                                 "windows-1252",
                                                 "ISO-8859-8",
                                                 "Shift_JIS",
                                                 "ISO-2022-JP",
                                                 "GBK",
                                                 "ibm-1363_P11B-1998",
                                                 "Big5",
                                                 "HZ-GB-2312",
                                                 "windows-949-2000",
                                                 "windows-1258",
                                                 "ibm-943_P130-1999"};

using Result = std::optional<std::string>;

void UseIcu(bool icu)
{
   static const CodeSetEngine *const engine = CodeSetIcu_Open("icudt44l.dat");
   REQUIRE(engine != nullptr);
   CodeSetEngine_Set(icu ? engine : nullptr);
}

/* A result that was allocated, or the proof that there is none. */
template <typename Routine> Result Allocated(Routine routine, size_t terminator)
{
   char untouched;
   char *output = &untouched;
   size_t length = SIZE_MAX;
   if (!routine(&output, &length)) {
      REQUIRE(output == &untouched && length == SIZE_MAX);
      return std::nullopt;
   }
   REQUIRE(output != &untouched && output != nullptr && length != SIZE_MAX);
   const std::unique_ptr<char, Freed> owned(output);
   REQUIRE(std::string(output + length, terminator) == std::string(terminator, '\0'));
   return std::string(output, length);
}

Result Convert(const char *source, std::string_view input, const char *target, uint32_t mode)
{
   const Exactly exact(input);
   Result result = Allocated(
       [&](char **output, size_t *length) {
          return CodeSet_Convert(source, exact.bytes.get(), exact.size, target, mode, output, length);
       },
       4);

   OwnedDynBuf buffer;
   /* The built-in engine appends; ICU writes from the start. */
   const std::string_view before = CodeSetEngine_Get() == nullptr ? "before" : "";
   REQUIRE(DynBuf_Append(&buffer, before.data(), before.size()));
   const bool converted =
       CodeSet_ConvertToBuffer(source, exact.bytes.get(), exact.size, target, mode, &buffer);
   REQUIRE(converted == result.has_value());
   REQUIRE(!converted || std::string(buffer.data, buffer.size) == std::string(before) + *result);
   return result;
}

bool IsBuiltinPair(std::string_view source, std::string_view target)
{
   return source == target || target == "UTF-8" || (source == "UTF-8" && target == "UTF-16LE");
}

/* Both walks of the validation. */
bool IsUtf8(std::string_view text)
{
   const Exactly exact(text);
   const auto *const bytes = reinterpret_cast<const unsigned char *>(exact.bytes.get());
   const bool valid = CodeSetIsValidUtf8Portable(bytes, exact.size);
   REQUIRE(!Processor_HasWideRegisters() || CodeSetIsValidUtf8Wide(bytes, exact.size) == valid);
   return valid;
}

void RequireSame(const Result &found, const Result &expected)
{
   REQUIRE(found.has_value() == expected.has_value());
   REQUIRE_SAME(found.value_or(""), expected.value_or(""));
}

void CheckBothEngines(FuzzedDataProvider *input)
{
   const std::string_view source = input->PickValueInArray(KNOWN);
   const std::string_view target = input->PickValueInArray(KNOWN);
   const uint32_t mode = input->ConsumeIntegralInRange(CODESET_REFUSE, CODESET_SKIP);
   const std::string bytes = input->ConsumeRemainingBytesAsString();
   const auto convert = [&](bool icu, uint32_t how) {
      UseIcu(icu);
      return Convert(source.data(), bytes, target.data(), how);
   };

   const Result refusing = convert(true, CODESET_REFUSE);
   const Result icu = convert(true, mode);
   REQUIRE(mode == CODESET_REFUSE || icu.has_value());
   REQUIRE(target != "UTF-8" || !icu || IsUtf8(*icu));
   if (refusing) {
      RequireSame(icu, refusing);
   }

   const Result builtin = convert(false, mode);
   if (bytes.empty()) {
      RequireSame(builtin, "");
   } else if (!IsBuiltinPair(source, target)) {
      RequireSame(builtin, std::nullopt);
   } else {
      /* It replaces nothing but what is no ASCII. */
      RequireSame(builtin, source == "US-ASCII" && target == "UTF-8" ? icu : refusing);
   }
   const Exactly exact(bytes);
   const bool valid = CodeSet_Validate(exact.bytes.get(), exact.size, source.data());
   REQUIRE(valid == Convert(source.data(), bytes, "UTF-8", CODESET_REFUSE).has_value());
}

void CheckIcu(FuzzedDataProvider *input)
{
   UseIcu(true);
   const char *const name = input->PickValueInArray(ON_ICU);
   const std::string bytes = input->ConsumeRemainingBytesAsString();
   const Exactly exact(bytes);

   const Result text = Convert(name, bytes, "UTF-8", CODESET_REFUSE);
   /* What decodes to nothing counts as invalid, unless it is nothing. Encodings that can spell a lone surrogate do so
      validly, though UTF-8 cannot hold it. */
   const bool valid = CodeSet_Validate(exact.bytes.get(), exact.size, name);
   const std::string_view spells = name;
   const bool surrogates = spells == "UTF-7" || spells == "CESU-8" || spells == "SCSU" || spells == "BOCU-1";
   REQUIRE(valid == (bytes.empty() || (text && !text->empty())) || (valid && !text && surrogates));
   for (const uint32_t mode : {CODESET_SUBSTITUTE, CODESET_SKIP}) {
      const Result replaced = Convert(name, bytes, "UTF-8", mode);
      REQUIRE(replaced && IsUtf8(*replaced));
      REQUIRE(!text || text == replaced);
   }
   if (!text) {
      return;
   }
   if (const Result back = Convert("UTF-8", *text, name, CODESET_REFUSE)) {
      RequireSame(Convert(name, *back, "UTF-8", CODESET_REFUSE), text);
   }
}

bool IsPrivateUse(char32_t c)
{
   return (c >= 0xE000 && c <= 0xF8FF) || c >= 0xF0000;
}

/* What an encoding takes in it gives back, but for characters that mean what their users agree on. */
void CheckIntoIcu(FuzzedDataProvider *input)
{
   UseIcu(true);
   const char *const name = input->PickValueInArray(ON_ICU);
   const std::string text = input->ConsumeRemainingBytesAsString();
   const Result encoded = Convert("UTF-8", text, name, CODESET_REFUSE);
   const std::optional<std::u32string> codePoints = DecodeUtf8(text);
   REQUIRE(codePoints || !encoded);
   if (encoded && std::none_of(codePoints->begin(), codePoints->end(), IsPrivateUse)) {
      RequireSame(Convert(name, *encoded, "UTF-8", CODESET_REFUSE), text);
   }
}

Result Normalized(bool composed, const std::string &text)
{
   return Allocated(
       [&](char **output, size_t *length) {
          return composed ? CodeSet_Utf8FormC(text.c_str(), text.size(), output, length)
                          : CodeSet_Utf8FormD(text.c_str(), text.size(), output, length);
       },
       4);
}

void CheckNormalForms(FuzzedDataProvider *input)
{
   const std::string bytes = input->ConsumeRemainingBytesAsString();
   const Result composed = Normalized(true, bytes);
   const Result decomposed = Normalized(false, bytes);
   const bool valid = IsUtf8(AsString(bytes));
   REQUIRE(composed.has_value() == valid && decomposed.has_value() == valid);
   if (valid) {
      RequireSame(Normalized(true, *composed), composed);
      RequireSame(Normalized(false, *decomposed), decomposed);
      RequireSame(Normalized(true, *decomposed), composed);
      RequireSame(Normalized(false, *composed), decomposed);
   }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const auto check = input.PickValueInArray({CheckBothEngines, CheckIcu, CheckIntoIcu, CheckNormalForms});
   check(&input);
   return 0;
}
