#ifndef TESSEL_FUZZ_SUPPORT_FUZZ_H
#define TESSEL_FUZZ_SUPPORT_FUZZ_H

#include "lib/public/program.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/* What the fuzzing targets share. A target is a source with LLVMFuzzerTestOneInput, which libFuzzer calls with one
   input after the other: it says at its head what has to hold, and REQUIREs it. */

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/* Ends the run with a finding unless the condition holds. */
#define REQUIRE(condition) ((condition) ? void() : Fuzz_Fail(__FILE__, __LINE__, #condition))

[[noreturn]] void Fuzz_Fail(const char *file, int line, const char *condition);

/* The same for two texts that have to be equal, which are shown. */
#define REQUIRE_SAME(found, expected) Fuzz_RequireSame(__FILE__, __LINE__, #found, found, expected)

void Fuzz_RequireSame(const char *file, int line, const char *what, std::string_view found,
                      std::string_view expected);

/* Shows a text on standard error, in printable form, for a finding to be understood. */
void Fuzz_Show(const char *what, std::string_view text);

struct Freed {
   void operator()(void *block) const
   {
      free(block);
   }
};

/* A malloc'ed string that a routine returned, as a std::string. It must not be null. */
std::string Take(char *text);

/* A copy in a block of just its size, so that a read beyond it is seen. */
struct Exactly {
   explicit Exactly(std::string_view bytes);

   std::unique_ptr<char[]> bytes;
   size_t size;
};

/* The rest of the input as text that C strings can hold: up to its first NUL. */
std::string RestAsString(FuzzedDataProvider *input);
std::string AsString(std::string text);

/* What Panic throws here. The product has no cleanup for exceptions, so that what the routine held is freed by
   whoever catches it: the routine must not have kept it anywhere. */
struct Panicked {};

/* Remember the blocks that are allocated from now on, free those that are left, or forget them. */
void Fuzz_WatchBlocks();
void Fuzz_FreeBlocks();
void Fuzz_ForgetBlocks();

/* Whether the call ends in Panic. */
template <typename Call> bool Panics(Call call)
{
   Fuzz_WatchBlocks();
   try {
      call();
   } catch (const Panicked &) {
      Fuzz_FreeBlocks();
      return true;
   }
   Fuzz_ForgetBlocks();
   return false;
}

/* How many messages the program was given by Log and Warning, and the last of them. */
size_t Fuzz_LogCount();
std::string_view Fuzz_LastLog();

/* UTF-8 by the table of well-formed byte sequences (The Unicode Standard, chapter 3, table 3-7), one byte at a time:
   what the routines with their blocks and automata are held against. */

/* Nothing if the text is ill-formed. Loose: surrogates, and values up to 0x13FFFF, pass. */
std::optional<std::u32string> DecodeUtf8(std::string_view text, bool loose = false);
std::string EncodeUtf8(std::u32string_view codePoints);

/* The text without a sequence at its end that was begun but not completed, by the rule for all bounded output: only the
   last lead byte counts, and what it announces. */
std::string_view WithoutPartialEnd(std::string_view text);

#endif
