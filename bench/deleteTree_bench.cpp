/* Deleting trees, made anew before each pass and outside the measured time, which is the processor's, with that of the program that a peer starts; wall is the time that passed. */

#include "bench/processorTime.h"
#include "lib/file/file.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int64_t FILES_EACH = 100;

bool MakeFile(const std::string &path)
{
   const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
   const bool written = fd != -1 && write(fd, "x", 1) == 1;
   close(fd);
   return written;
}

/* Makes a tree below a folder that exists. */
using MakeTree = bool (*)(const std::string &top, int64_t size);

/* That many small files, a hundred in a folder. */
bool MakeFiles(const std::string &top, int64_t files)
{
   std::string folder;
   for (int64_t i = 0; i < files; i++) {
      if (i % FILES_EACH == 0) {
         folder = top + "/folder" + std::to_string(i / FILES_EACH);
         if (mkdir(folder.c_str(), 0755) != 0) {
            return false;
         }
      }
      if (!MakeFile(folder + "/file" + std::to_string(i % FILES_EACH))) {
         return false;
      }
   }
   return true;
}

/* That many folders, each in the one before it. */
bool MakeDepth(const std::string &top, int64_t folders)
{
   std::string folder = top;
   for (int64_t i = 0; i < folders; i++) {
      folder += "/d";
      if (mkdir(folder.c_str(), 0755) != 0) {
         return false;
      }
   }
   return true;
}

bool RunProgram(const char *name, const char *first, const char *second, const char *third)
{
   pid_t child = -1;
   int status = -1;
   char *const arguments[] = {const_cast<char *>(name), const_cast<char *>(first), const_cast<char *>(second),
                              const_cast<char *>(third), nullptr};
   return posix_spawnp(&child, name, nullptr, nullptr, arguments, environ) == 0 &&
          waitpid(child, &status, 0) == child && status == 0;
}

bool DeleteWithRm(const char *path)
{
   return RunProgram("rm", "-rf", "--", path);
}

bool DeleteWithFind(const char *path)
{
   return RunProgram("find", path, "-delete", nullptr);
}

bool DeleteWithFilesystem(const char *path)
{
   std::error_code error;
   return std::filesystem::remove_all(path, error) != static_cast<std::uintmax_t>(-1);
}

void Delete(benchmark::State &state, bool (*deleteTree)(const char *), MakeTree make)
{
   double wall = 0;
   for ([[maybe_unused]] auto pass : state) {
      std::string top = (std::filesystem::temp_directory_path() / "tessel-bench-XXXXXX").string();
      const bool made = mkdtemp(top.data()) != nullptr && make(top, state.range(0));
      const double before = ProcessorSeconds();
      const auto start = std::chrono::steady_clock::now();
      const bool deleted = deleteTree(top.c_str());
      const auto end = std::chrono::steady_clock::now();
      state.SetIterationTime(ProcessorSeconds() - before);
      wall += std::chrono::duration<double>(end - start).count();
      if (!made || !deleted || access(top.c_str(), F_OK) == 0) {
         state.SkipWithError("the tree was not made or not deleted");
         break;
      }
   }
   state.counters["wall"] = benchmark::Counter(wall, benchmark::Counter::kAvgIterations);
}

void Settings(benchmark::internal::Benchmark *bench)
{
   bench->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}

#define BENCHMARK_DELETE(implementation, deleteTree)                                                         \
   BENCHMARK_CAPTURE(Delete, implementation, deleteTree, MakeFiles)                                          \
       ->Name("tree/Delete/" implementation)                                                                 \
       ->Arg(20000)                                                                                          \
       ->Apply(Settings);                                                                                    \
   BENCHMARK_CAPTURE(Delete, implementation, deleteTree, MakeFiles)                                          \
       ->Name("tree-grows/Files/" implementation)                                                            \
       ->RangeMultiplier(10)                                                                                 \
       ->Range(100, 100000)                                                                                  \
       ->Apply(Settings);                                                                                    \
   BENCHMARK_CAPTURE(Delete, implementation, deleteTree, MakeDepth)                                          \
       ->Name("tree-grows/Depth/" implementation)                                                            \
       ->RangeMultiplier(10)                                                                                 \
       ->Range(10, 1000)                                                                                     \
       ->Apply(Settings)

BENCHMARK_DELETE("tessel", File_DeleteDirectoryTree);
BENCHMARK_DELETE("rm", DeleteWithRm);
BENCHMARK_DELETE("libstdc++", DeleteWithFilesystem);
BENCHMARK_DELETE("find", DeleteWithFind);

} // namespace
