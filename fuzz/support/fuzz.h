#ifndef TESSEL_FUZZ_SUPPORT_FUZZ_H
#define TESSEL_FUZZ_SUPPORT_FUZZ_H

#include "fuzz/support/input.h"
#include "lib/public/program.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#if TESSEL_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

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

/* What Panic throws here. The product has no cleanup for exceptions: what the routine holds is lost, and no leak. */
struct Panicked {};

#if TESSEL_LEAKS
using LeaksUnseen = __lsan::ScopedDisabler;
#else
struct LeaksUnseen {
   ~LeaksUnseen()
   {
   }
};
#endif

/* Whether the call ends in Panic. */
template <typename Call> bool Panics(Call call)
{
   const LeaksUnseen unseen;
   try {
      call();
   } catch (const Panicked &) {
      return true;
   }
   return false;
}

/* How many messages the program was given by Log and Warning, and the last of them. */
size_t Fuzz_LogCount();
std::string_view Fuzz_LastLog();

/* Nothing if the text is ill-formed. Loose: surrogates, and values up to 0x13FFFF, pass. */
std::optional<std::u32string> DecodeUtf8(std::string_view text, bool loose = false);
std::string EncodeUtf8(std::u32string_view codePoints);

/* The text without a sequence at its end that was begun but not completed, by the rule for all bounded output: only the
   last lead byte counts, and what it announces. */
std::string_view WithoutPartialEnd(std::string_view text);

#endif
