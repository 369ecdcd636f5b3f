/* A megabyte put together piece by piece, from an empty buffer. The argument is the length of a piece. */

#include "lib/misc/memory/dynbuf.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <string>

namespace {

constexpr size_t TOTAL = 1 << 20;
constexpr std::array<char, 64> PIECE = {};

void Finish(benchmark::State &state)
{
   state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(TOTAL));
}

void AppendDynBuf(benchmark::State &state)
{
   const auto length = static_cast<size_t>(state.range(0));
   for ([[maybe_unused]] auto iteration : state) {
      DynBuf buffer;
      DynBuf_Init(&buffer);
      for (size_t n = 0; n < TOTAL; n += length) {
         benchmark::DoNotOptimize(DynBuf_Append(&buffer, PIECE.data(), length));
      }
      DynBuf_Destroy(&buffer);
   }
   Finish(state);
}

void AppendGByteArray(benchmark::State &state)
{
   const auto length = static_cast<guint>(state.range(0));
   for ([[maybe_unused]] auto iteration : state) {
      GByteArray *buffer = g_byte_array_new();
      for (size_t n = 0; n < TOTAL; n += length) {
         benchmark::DoNotOptimize(
             g_byte_array_append(buffer, reinterpret_cast<const guint8 *>(PIECE.data()), length));
      }
      g_byte_array_free(buffer, TRUE);
   }
   Finish(state);
}

void AppendStdString(benchmark::State &state)
{
   const auto length = static_cast<size_t>(state.range(0));
   for ([[maybe_unused]] auto iteration : state) {
      std::string buffer;
      for (size_t n = 0; n < TOTAL; n += length) {
         benchmark::DoNotOptimize(buffer.append(PIECE.data(), length));
      }
   }
   Finish(state);
}

/* As fast as it can get: the room is there. */
void AppendKnownSize(benchmark::State &state)
{
   const auto length = static_cast<size_t>(state.range(0));
   for ([[maybe_unused]] auto iteration : state) {
      auto *buffer = static_cast<char *>(malloc(TOTAL));
      for (size_t n = 0; n < TOTAL; n += length) {
         memcpy(buffer + n, PIECE.data(), length);
         benchmark::ClobberMemory();
      }
      free(buffer);
   }
   Finish(state);
}

BENCHMARK(AppendDynBuf)->Name("dynbuf/Append/tessel")->Arg(1)->Arg(64);
BENCHMARK(AppendGByteArray)->Name("dynbuf/Append/glib")->Arg(1)->Arg(64);
BENCHMARK(AppendStdString)->Name("dynbuf/Append/libstdc++")->Arg(1)->Arg(64);
BENCHMARK(AppendKnownSize)->Name("dynbuf/Append/memcpy")->Arg(1)->Arg(64);

} // namespace
