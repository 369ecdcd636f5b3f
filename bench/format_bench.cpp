/* The formatting engine beside the C library's, fmt and Abseil, each used as its users do. A row is one format, in
   a fixed buffer or as a new string; the numbers of a run are to be compared with each other only. */

#include "lib/string/str.h"

#include <absl/strings/str_format.h>
#include <array>
#include <benchmark/benchmark.h>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <random>

namespace {

char sBuffer[1024];

enum class Peer { OURS, LIBRARY, FMT, ABSEIL };

/* A format in the language of printf and in that of fmt, with arguments that differ from call to call. */
#define BENCH_FORMAT(name, printfFormat, fmtFormat, ...)                                                     \
   template <Peer peer> void name##Fixed(benchmark::State &state)                                            \
   {                                                                                                         \
      int i = 0;                                                                                             \
      for (auto _ : state) {                                                                                 \
         i = (i + 1) & 1023;                                                                                 \
         if constexpr (peer == Peer::OURS) {                                                                 \
            Str_Snprintf(sBuffer, sizeof sBuffer, printfFormat, __VA_ARGS__);                                \
         } else if constexpr (peer == Peer::LIBRARY) {                                                       \
            snprintf(sBuffer, sizeof sBuffer, printfFormat, __VA_ARGS__);                                    \
         } else if constexpr (peer == Peer::FMT) {                                                           \
            *fmt::format_to_n(sBuffer, sizeof sBuffer - 1, fmtFormat, __VA_ARGS__).out = '\0';               \
         } else {                                                                                            \
            absl::SNPrintF(sBuffer, sizeof sBuffer, printfFormat, __VA_ARGS__);                              \
         }                                                                                                   \
         benchmark::DoNotOptimize(sBuffer);                                                                  \
         benchmark::ClobberMemory();                                                                         \
      }                                                                                                      \
   }                                                                                                         \
   template <Peer peer> void name##Allocating(benchmark::State &state)                                       \
   {                                                                                                         \
      int i = 0;                                                                                             \
      for (auto _ : state) {                                                                                 \
         i = (i + 1) & 1023;                                                                                 \
         if constexpr (peer == Peer::OURS) {                                                                 \
            char *text = Str_Asprintf(nullptr, printfFormat, __VA_ARGS__);                                   \
            benchmark::DoNotOptimize(text);                                                                  \
            free(text);                                                                                      \
         } else if constexpr (peer == Peer::LIBRARY) {                                                       \
            char *text = nullptr;                                                                            \
            benchmark::DoNotOptimize(asprintf(&text, printfFormat, __VA_ARGS__));                            \
            benchmark::DoNotOptimize(text);                                                                  \
            free(text);                                                                                      \
         } else if constexpr (peer == Peer::FMT) {                                                           \
            benchmark::DoNotOptimize(fmt::format(fmtFormat, __VA_ARGS__));                                   \
         } else {                                                                                            \
            benchmark::DoNotOptimize(absl::StrFormat(printfFormat, __VA_ARGS__));                            \
         }                                                                                                   \
      }                                                                                                      \
   }                                                                                                         \
   BENCH_PEERS(name##Fixed)                                                                                  \
   BENCH_PEERS(name##Allocating)

#define BENCH_PEERS(name)                                                                                    \
   BENCHMARK(name<Peer::OURS>)->Name("format/" #name "/tessel");                                             \
   BENCHMARK(name<Peer::LIBRARY>)->Name("format/" #name "/glibc");                                           \
   BENCHMARK(name<Peer::FMT>)->Name("format/" #name "/fmt");                                                 \
   BENCHMARK(name<Peer::ABSEIL>)->Name("format/" #name "/abseil");

BENCH_FORMAT(LogPrefix, "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}| ",
             2024, 6, 11, i & 15, i & 31, 59, i & 511)

BENCH_FORMAT(LogLine, "%s: kevent errno %d.\n", "{}: kevent errno {}.\n", "ServiceImplDaemon", i)

const char *const sFolder = "/Library/Application Support/Kestra/Kestra Tessel";
const char *const sName = "services.sh";

BENCH_FORMAT(Path, "%s%s%s", "{}{}{}", sFolder, "/Services/", sName)

const std::string sLong(280, 'x');

BENCH_FORMAT(LongMessage, "%s: %d of %d, %d\n", "{}: {} of {}, {}\n", sLong.c_str(), i, 1024, i * 7)

/* What code written for the one format can do. The compiler must not know what it writes. */
template <typename... Values> void Hide(Values &...values)
{
   (benchmark::DoNotOptimize(values), ...);
}

char *PutDigits(char *out, int value, int digits)
{
   for (int place = digits - 1; place >= 0; place--) {
      out[place] = static_cast<char>('0' + value % 10);
      value /= 10;
   }
   return out + digits;
}

char *PutText(char *out, const char *text)
{
   const size_t length = strlen(text);
   memcpy(out, text, length);
   return out + length;
}

char *PutInt(char *out, int value)
{
   return std::to_chars(out, out + 12, value).ptr;
}

void LogPrefixByHand(benchmark::State &state)
{
   int i = 0;
   for (auto _ : state) {
      i = (i + 1) & 1023;
      int year = 2024;
      int month = 6;
      int day = 11;
      int second = 59;
      Hide(year, month, day, second);
      char *out = PutDigits(sBuffer, year, 4);
      *out++ = '-';
      out = PutDigits(out, month, 2);
      *out++ = '-';
      out = PutDigits(out, day, 2);
      *out++ = 'T';
      out = PutDigits(out, i & 15, 2);
      *out++ = ':';
      out = PutDigits(out, i & 31, 2);
      *out++ = ':';
      out = PutDigits(out, second, 2);
      *out++ = '.';
      out = PutDigits(out, i & 511, 3);
      memcpy(out, "| ", 3);
      benchmark::DoNotOptimize(sBuffer);
      benchmark::ClobberMemory();
   }
}

void LogLineByHand(benchmark::State &state)
{
   const char *tag = "ServiceImplDaemon";
   int i = 0;
   for (auto _ : state) {
      i = (i + 1) & 1023;
      Hide(tag);
      char *out = PutText(PutText(sBuffer, tag), ": kevent errno ");
      memcpy(PutInt(out, i), ".\n", 3);
      benchmark::DoNotOptimize(sBuffer);
      benchmark::ClobberMemory();
   }
}

void PathByHand(benchmark::State &state)
{
   const char *folder = sFolder;
   const char *middle = "/Services/";
   const char *name = sName;
   for (auto _ : state) {
      Hide(folder, middle, name);
      *PutText(PutText(PutText(sBuffer, folder), middle), name) = '\0';
      benchmark::DoNotOptimize(sBuffer);
      benchmark::ClobberMemory();
   }
}

BENCHMARK(LogPrefixByHand)->Name("format/LogPrefixFixed/hand");
BENCHMARK(LogLineByHand)->Name("format/LogLineFixed/hand");
BENCHMARK(PathByHand)->Name("format/PathFixed/hand");

/* Reals of two kinds: everyday magnitudes, and all finite bit patterns alike. */
template <typename Draw> std::array<double, 1024> Reals(Draw draw)
{
   std::array<double, 1024> reals{};
   for (double &real : reals) {
      real = draw();
   }
   return reals;
}

std::mt19937_64 sRandom(7);

const std::array<double, 1024> sEveryday =
    Reals([] { return std::uniform_real_distribution<double>(-1e6, 1e6)(sRandom); });

const std::array<double, 1024> sAnyBits = Reals([] {
   for (;;) {
      const double real = std::bit_cast<double>(sRandom());
      if (std::isfinite(real)) {
         return real;
      }
   }
});

BENCH_FORMAT(EverydayF3, "%.3f", "{:.3f}", sEveryday[static_cast<size_t>(i)])
BENCH_FORMAT(EverydayF, "%f", "{:f}", sEveryday[static_cast<size_t>(i)])
BENCH_FORMAT(EverydayG, "%g", "{:g}", sEveryday[static_cast<size_t>(i)])
BENCH_FORMAT(EverydayE, "%e", "{:e}", sEveryday[static_cast<size_t>(i)])
BENCH_FORMAT(AnyBitsF3, "%.3f", "{:.3f}", sAnyBits[static_cast<size_t>(i)])
BENCH_FORMAT(AnyBitsG, "%g", "{:g}", sAnyBits[static_cast<size_t>(i)])
BENCH_FORMAT(AnyBitsE, "%e", "{:e}", sAnyBits[static_cast<size_t>(i)])
BENCH_FORMAT(AnyBitsE17, "%.16e", "{:.16e}", sAnyBits[static_cast<size_t>(i)])

/* How the time of %s grows with the length of its text. */
template <typename Print> void TextLength(benchmark::State &state, Print print)
{
   const std::string text(static_cast<size_t>(state.range(0)), 'x');
   std::string buffer(text.size() + 16, '\0');
   for (auto _ : state) {
      print(buffer.data(), buffer.size(), text.c_str());
      benchmark::ClobberMemory();
   }
}

constexpr int64_t LONGEST_TEXT = 1 << 20;

void Lengths(benchmark::internal::Benchmark *bench)
{
   bench->RangeMultiplier(16)->Range(16, LONGEST_TEXT);
}

BENCHMARK_CAPTURE(TextLength, tessel,
                  [](char *buffer, size_t size, const char *text) {
                     return Str_Snprintf(buffer, size, "%s: %d\n", text, 7);
                  })
    ->Name("format-grows/TextLength/tessel")
    ->Apply(Lengths);
BENCHMARK_CAPTURE(TextLength, glibc,
                  [](char *buffer, size_t size, const char *text) {
                     return snprintf(buffer, size, "%s: %d\n", text, 7);
                  })
    ->Name("format-grows/TextLength/glibc")
    ->Apply(Lengths);

} // namespace
