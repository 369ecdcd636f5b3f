/* Runs every input of a folder once through one of the targets: what was found once stays found, without an engine. */

#include "fuzz/support/fuzz.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

/* The build lists the targets as TARGET(name), and compiles each with its own name for its one routine. */
#define TARGET(name) extern "C" int Fuzz_##name(const uint8_t *data, size_t size);
TESSEL_FUZZ_TARGETS
#undef TARGET

namespace {

constexpr struct {
   const char *name;
   int (*run)(const uint8_t *data, size_t size);
} TARGETS[] = {
#define TARGET(name) {#name, Fuzz_##name},
    TESSEL_FUZZ_TARGETS
#undef TARGET
};

} // namespace

int main(int argc, char **argv)
{
   size_t inputs = 0;
   for (const auto &target : TARGETS) {
      if (argc != 3 || strcmp(target.name, argv[1]) != 0) {
         continue;
      }
      for (const auto &entry : std::filesystem::directory_iterator(argv[2])) {
         std::ostringstream content;
         content << std::ifstream(entry.path(), std::ios::binary).rdbuf();
         const std::string input = content.str();
         fprintf(stderr, "%s\n", entry.path().filename().c_str());
         target.run(reinterpret_cast<const uint8_t *>(input.data()), input.size());
         inputs++;
      }
   }
   return inputs == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
