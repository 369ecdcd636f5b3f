#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/utf8.h"
#include "lib/unicode/unicodeSimpleTypes.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <iconv.h>
#include <simdjson.h>
#include <string>
#include <string_view>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>
#include <unistr.h>
#include <vector>

/* Every group has its peers in the same run: compare within a run only. All conversions hand back a new block. */

namespace {

constexpr size_t TEXT_BYTES = size_t{1} << 20;

struct Text {
   const char *name;
   std::string_view sample;
};

constexpr Text samples[] = {
    {"Ascii", "The quick brown fox jumps over the lazy dog. /usr/lib/example/file-1.txt\n"},
    {"Latin", "D\u00E8s No\u00EBl o\u00F9 un z\u00E9phyr ha\u00EF me v\u00EAt de gla\u00E7ons w\u00FCrmiens, "
              "je d\u00EEne d\u2019exquis r\u00F4tis. "},
    {"Chinese", "\u5929\u5730\u7384\u9EC4\uFF0C\u5B87\u5B99\u6D2A\u8352\u3002\u65E5\u6708\u76C8\u6603\uFF0C"
                "\u8FB0\u5BBF\u5217\u5F20\u3002\u5BD2\u6765\u6691\u5F80\uFF0C\u79CB\u6536\u51AC\u85CF\u3002"},
    {"Emoji", "\U0001F600\U0001F680\U0001F30D\U0001F468\u200D\U0001F469\u200D\U0001F467 \U0001F389\U0001F3B8 "
              "ok \U0001F44D\U0001F3FD"},
};

/* As often as it goes into that many bytes. */
std::string TextOf(const Text &text, size_t bytes)
{
   std::string whole;
   while (whole.size() + text.sample.size() <= bytes) {
      whole += text.sample;
   }
   return whole;
}

/* Strings of about 32 bytes, one after the other, as file names come. */
const std::vector<std::string> &ShortStrings()
{
   static const std::vector<std::string> strings = [] {
      std::vector<std::string> made;
      for (const Text &text : samples) {
         for (size_t from = 0; from + 40 < text.sample.size(); from += 7) {
            while ((static_cast<unsigned char>(text.sample[from]) & 0xC0) == 0x80) {
               from++;
            }
            size_t to = from + 32;
            while (to < text.sample.size() && (static_cast<unsigned char>(text.sample[to]) & 0xC0) == 0x80) {
               to++;
            }
            made.emplace_back(text.sample.substr(from, to - from));
         }
      }
      return made;
   }();
   return strings;
}

bool IcuValidates(const char *text, size_t length)
{
   UErrorCode status = U_ZERO_ERROR;
   int32_t units = 0;
   u_strFromUTF8(nullptr, 0, &units, text, static_cast<int32_t>(length), &status);
   return status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status);
}

bool GlibValidates(const char *text, size_t length)
{
   return g_utf8_validate_len(text, length, nullptr) != 0;
}

bool UnistringValidates(const char *text, size_t length)
{
   const uint8_t *bad = u8_check(reinterpret_cast<const uint8_t *>(text), length);
   benchmark::DoNotOptimize(bad);
   return bad == nullptr;
}

/* Steps of a vector register, by the widest instructions the processor has. */
bool SimdjsonValidates(const char *text, size_t length)
{
   return simdjson::validate_utf8(text, length);
}

bool OwnValidates(const char *text, size_t length)
{
   return CodeSet_IsValidUtf8Buffer(text, length);
}

bool PortableValidates(const char *text, size_t length)
{
   return CodeSetIsValidUtf8Portable(reinterpret_cast<const unsigned char *>(text), length);
}

using Validates = bool (*)(const char *, size_t);

void Validate(benchmark::State &state, Validates validates, const std::string &text)
{
   for (auto _ : state) {
      benchmark::ClobberMemory();
      if (!validates(text.data(), text.size())) {
         state.SkipWithError("refused");
      }
   }
   state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}

void ValidateShort(benchmark::State &state, Validates validates)
{
   const std::vector<std::string> &strings = ShortStrings();
   for (auto _ : state) {
      for (const std::string &string : strings) {
         bool valid = validates(string.data(), string.size());
         benchmark::DoNotOptimize(valid);
      }
   }
   state.SetItemsProcessed(static_cast<int64_t>(strings.size()) * state.iterations());
}

char *OwnToUtf16(const std::string &text)
{
   char *output = nullptr;
   return CodeSet_Utf8ToUtf16le(text.data(), text.size(), &output, nullptr) ? output : nullptr;
}

char *IcuToUtf16(const std::string &text)
{
   UErrorCode status = U_ZERO_ERROR;
   int32_t units = 0;
   const auto capacity = static_cast<int32_t>(text.size() + 1);
   auto *output = static_cast<UChar *>(malloc(static_cast<size_t>(capacity) * sizeof(UChar)));
   u_strFromUTF8(output, capacity, &units, text.data(), static_cast<int32_t>(text.size()), &status);
   return reinterpret_cast<char *>(output);
}

char *GlibToUtf16(const std::string &text)
{
   return reinterpret_cast<char *>(
       g_utf8_to_utf16(text.data(), static_cast<glong>(text.size()), nullptr, nullptr, nullptr));
}

char *IconvRun(const char *target, const char *source, const std::string &text, size_t capacity)
{
   iconv_t converter = iconv_open(target, source);
   auto *output = static_cast<char *>(malloc(capacity));
   char *in = const_cast<char *>(text.data());
   char *out = output;
   size_t inLeft = text.size();
   size_t outLeft = capacity;
   iconv(converter, &in, &inLeft, &out, &outLeft);
   iconv_close(converter);
   return output;
}

char *IconvToUtf16(const std::string &text)
{
   return IconvRun("UTF-16LE", "UTF-8", text, text.size() * 2 + 2);
}

std::string Utf16Of(const std::string &text)
{
   char *output = nullptr;
   size_t length = 0;
   if (!CodeSet_Utf8ToUtf16le(text.data(), text.size(), &output, &length)) {
      abort();
   }
   std::string utf16(output, length);
   free(output);
   return utf16;
}

char *OwnToUtf8(const std::string &utf16)
{
   char *output = nullptr;
   return CodeSet_Utf16leToUtf8(utf16.data(), utf16.size(), &output, nullptr) ? output : nullptr;
}

char *IcuToUtf8(const std::string &utf16)
{
   UErrorCode status = U_ZERO_ERROR;
   const size_t units = utf16.size() / 2;
   const auto capacity = static_cast<int32_t>(units * 3 + 1);
   auto *output = static_cast<char *>(malloc(static_cast<size_t>(capacity)));
   u_strToUTF8(output, capacity, nullptr, reinterpret_cast<const UChar *>(utf16.data()),
               static_cast<int32_t>(units), &status);
   return output;
}

char *GlibToUtf8(const std::string &utf16)
{
   return g_utf16_to_utf8(reinterpret_cast<const gunichar2 *>(utf16.data()),
                          static_cast<glong>(utf16.size() / 2), nullptr, nullptr, nullptr);
}

char *IconvToUtf8(const std::string &utf16)
{
   return IconvRun("UTF-8", "UTF-16LE", utf16, utf16.size() * 3 / 2 + 2);
}

using Converts = char *(*)(const std::string &);

void Convert(benchmark::State &state, Converts converts, const std::string &input)
{
   for (auto _ : state) {
      char *output = converts(input);
      benchmark::DoNotOptimize(output);
      free(output);
   }
   state.SetBytesProcessed(static_cast<int64_t>(input.size()) * state.iterations());
}

/* What handing back a new block costs if the result is known. */
void Copy(benchmark::State &state, const std::string &result)
{
   for (auto _ : state) {
      auto *output = static_cast<char *>(malloc(result.size() + 1));
      memcpy(output, result.data(), result.size());
      benchmark::DoNotOptimize(output);
      benchmark::ClobberMemory();
      free(output);
   }
}

void LookupOwn(benchmark::State &state, const char *name, bool fresh)
{
   for (auto _ : state) {
      if (fresh) {
         UnicodeIANACacheFree();
      }
      benchmark::DoNotOptimize(UnicodeIANALookup(name));
   }
}

void LookupIcu(benchmark::State &state, const char *name)
{
   for (auto _ : state) {
      UErrorCode status = U_ZERO_ERROR;
      benchmark::DoNotOptimize(ucnv_getStandardName(name, "IANA", &status));
   }
}

void LookupIconv(benchmark::State &state, const char *name)
{
   for (auto _ : state) {
      iconv_t converter = iconv_open("UTF-8", name);
      benchmark::DoNotOptimize(converter);
      iconv_close(converter);
   }
}

struct Row {
   const char *implementation;
   Validates validates;
   Converts toUtf16;
   Converts toUtf8;
};

constexpr Row rows[] = {
    {"tessel", OwnValidates, OwnToUtf16, OwnToUtf8},
    {"tessel-portable", PortableValidates, nullptr, nullptr},
    {"glib", GlibValidates, GlibToUtf16, GlibToUtf8},
    {"icu", IcuValidates, IcuToUtf16, IcuToUtf8},
    {"libunistring", UnistringValidates, nullptr, nullptr},
    {"iconv", nullptr, IconvToUtf16, IconvToUtf8},
    {"simdjson", SimdjsonValidates, nullptr, nullptr},
};

template <typename... Arguments>
void Register(const std::string &which, const char *implementation, Arguments... arguments)
{
   benchmark::RegisterBenchmark((which + "/" + implementation).c_str(), arguments...);
}

void RegisterText(const Text &sample)
{
   const std::string text = TextOf(sample, TEXT_BYTES);
   const std::string utf16 = Utf16Of(text);
   const std::string name = sample.name;
   for (const Row &row : rows) {
      if (row.validates != nullptr) {
         Register("unicode/Validate" + name, row.implementation, Validate, row.validates, text);
      }
      if (row.toUtf16 != nullptr) {
         Register("unicode/ToUtf16" + name, row.implementation, Convert, row.toUtf16, text);
         Register("unicode/ToUtf8" + name, row.implementation, Convert, row.toUtf8, utf16);
      }
   }
   Register("unicode/ToUtf16" + name, "memcpy", Copy, utf16);
   Register("unicode/ToUtf8" + name, "memcpy", Copy, text);
}

void RegisterLengths(const Text &sample)
{
   for (size_t bytes = 256; bytes <= TEXT_BYTES * 16; bytes *= 16) {
      const std::string text = TextOf(sample, bytes);
      const std::string implementation = "tessel/" + std::to_string(bytes);
      Register("unicode-grows/Validate", implementation.c_str(), Validate, OwnValidates, text);
      Register("unicode-grows/ToUtf16", implementation.c_str(), Convert, OwnToUtf16, text);
      Register("unicode-grows/ToUtf8", implementation.c_str(), Convert, OwnToUtf8, Utf16Of(text));
   }
}

/* A miss includes making the cache anew and filling it. */
void RegisterLookups()
{
   Register("unicode/LookupHit", "tessel", LookupOwn, "windows-1252", false);
   Register("unicode/LookupMiss", "tessel", LookupOwn, "windows-1252", true);
   Register("unicode/LookupMissLate", "tessel", LookupOwn, "Windows-57011", true);
   Register("unicode/LookupMissLoose", "tessel", LookupOwn, "Cp_1258", true);
   for (const char *which : {"unicode/LookupHit", "unicode/LookupMiss"}) {
      Register(which, "icu", LookupIcu, "windows-1252");
      Register(which, "iconv", LookupIconv, "WINDOWS-1252");
   }
   Register("unicode/LookupMissLoose", "icu", LookupIcu, "Cp_1258");
}

} // namespace

int main(int argc, char **argv)
{
   for (const Text &sample : samples) {
      RegisterText(sample);
   }
   RegisterLengths(samples[1]);
   for (const Row &row : rows) {
      if (row.validates != nullptr) {
         Register("unicode/ValidateShort", row.implementation, ValidateShort, row.validates);
      }
   }
   RegisterLookups();
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   return 0;
}
