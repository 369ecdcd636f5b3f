#include "lib/misc/codeset.h"
#include "lib/unicode/unicodeSimpleTypes.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <glib.h>
#include <iconv.h>
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
    {"ascii", "The quick brown fox jumps over the lazy dog. /usr/lib/example/file-1.txt\n"},
    {"latin", "D\u00E8s No\u00EBl o\u00F9 un z\u00E9phyr ha\u00EF me v\u00EAt de gla\u00E7ons w\u00FCrmiens, "
              "je d\u00EEne d\u2019exquis r\u00F4tis. "},
    {"chinese", "\u5929\u5730\u7384\u9EC4\uFF0C\u5B87\u5B99\u6D2A\u8352\u3002\u65E5\u6708\u76C8\u6603\uFF0C"
                "\u8FB0\u5BBF\u5217\u5F20\u3002\u5BD2\u6765\u6691\u5F80\uFF0C\u79CB\u6536\u51AC\u85CF\u3002"},
    {"emoji", "\U0001F600\U0001F680\U0001F30D\U0001F468\u200D\U0001F469\u200D\U0001F467 \U0001F389\U0001F3B8 "
              "ok \U0001F44D\U0001F3FD"},
};

const std::string &TextOf(const benchmark::State &state)
{
   static const std::vector<std::string> texts = [] {
      std::vector<std::string> made;
      for (const Text &text : samples) {
         std::string &whole = made.emplace_back();
         while (whole.size() + text.sample.size() <= TEXT_BYTES) {
            whole += text.sample;
         }
      }
      return made;
   }();
   return texts[static_cast<size_t>(state.range(0))];
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

bool OwnValidates(const char *text, size_t length)
{
   return CodeSet_IsValidUtf8Buffer(text, length);
}

using Validates = bool (*)(const char *, size_t);

template <Validates validates> void Validate(benchmark::State &state)
{
   const std::string &text = TextOf(state);
   benchmark::DoNotOptimize(text.data());
   for (auto _ : state) {
      benchmark::ClobberMemory();
      if (!validates(text.data(), text.size())) {
         state.SkipWithError("refused");
      }
   }
   state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
   state.SetLabel(samples[state.range(0)].name);
}

template <Validates validates> void ValidateShort(benchmark::State &state)
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

template <Converts converts> void Convert(benchmark::State &state, const std::string &input)
{
   for (auto _ : state) {
      char *output = converts(input);
      benchmark::DoNotOptimize(output);
      free(output);
   }
   state.SetBytesProcessed(static_cast<int64_t>(input.size()) * state.iterations());
   state.SetLabel(samples[state.range(0)].name);
}

template <Converts converts> void ToUtf16(benchmark::State &state)
{
   Convert<converts>(state, TextOf(state));
}

template <Converts converts> void ToUtf8(benchmark::State &state)
{
   Convert<converts>(state, Utf16Of(TextOf(state)));
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

} // namespace

BENCHMARK(Validate<OwnValidates>)->DenseRange(0, 3);
BENCHMARK(Validate<GlibValidates>)->DenseRange(0, 3);
BENCHMARK(Validate<UnistringValidates>)->DenseRange(0, 3);
BENCHMARK(Validate<IcuValidates>)->DenseRange(0, 3);
BENCHMARK(ValidateShort<OwnValidates>);
BENCHMARK(ValidateShort<GlibValidates>);
BENCHMARK(ValidateShort<UnistringValidates>);
BENCHMARK(ValidateShort<IcuValidates>);
BENCHMARK(ToUtf16<OwnToUtf16>)->DenseRange(0, 3);
BENCHMARK(ToUtf16<IcuToUtf16>)->DenseRange(0, 3);
BENCHMARK(ToUtf16<GlibToUtf16>)->DenseRange(0, 3);
BENCHMARK(ToUtf16<IconvToUtf16>)->DenseRange(0, 3);
BENCHMARK(ToUtf8<OwnToUtf8>)->DenseRange(0, 3);
BENCHMARK(ToUtf8<IcuToUtf8>)->DenseRange(0, 3);
BENCHMARK(ToUtf8<GlibToUtf8>)->DenseRange(0, 3);
BENCHMARK(ToUtf8<IconvToUtf8>)->DenseRange(0, 3);

/* A miss includes making the cache anew and filling it. */
BENCHMARK_CAPTURE(LookupOwn, hit, "windows-1252", false);
BENCHMARK_CAPTURE(LookupOwn, miss_exact, "windows-1252", true);
BENCHMARK_CAPTURE(LookupOwn, miss_exact_late, "Windows-57011", true);
BENCHMARK_CAPTURE(LookupOwn, miss_loose, "Cp_1258", true);
BENCHMARK_CAPTURE(LookupIcu, exact, "windows-1252");
BENCHMARK_CAPTURE(LookupIcu, loose, "Cp_1258");
BENCHMARK_CAPTURE(LookupIconv, exact, "WINDOWS-1252");
