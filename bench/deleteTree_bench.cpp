/* Deleting 20,000 small files in 200 folders, made anew before each pass and outside the measured time. cpu is the
   processor time of one deletion, with that of the program that a peer starts: the better measure where the
   machine has other work. */

#include "lib/file/file.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int FOLDERS = 200;
constexpr int FILES_EACH = 100;
constexpr int PASSES = 5;

bool MakeFile(const std::string &path)
{
   const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
   const bool written = fd != -1 && write(fd, "x", 1) == 1;
   close(fd);
   return written;
}

/* The top folder's path; empty on failure. */
std::string MakeTree()
{
   std::string top = (std::filesystem::temp_directory_path() / "tessel-bench-XXXXXX").string();
   if (mkdtemp(top.data()) == nullptr) {
      return "";
   }
   for (int i = 0; i < FOLDERS; i++) {
      const std::string folder = top + "/folder" + std::to_string(i);
      if (mkdir(folder.c_str(), 0755) != 0) {
         return "";
      }
      for (int j = 0; j < FILES_EACH; j++) {
         if (!MakeFile(folder + "/file" + std::to_string(j))) {
            return "";
         }
      }
   }
   return top;
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
   return std::filesystem::remove_all(path, error) == 1 + FOLDERS + FOLDERS * FILES_EACH;
}

double Seconds(const struct timeval &time)
{
   return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/* Of this process and of the children it has waited for. */
double ProcessorSeconds()
{
   double seconds = 0;
   for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
      struct rusage usage;
      getrusage(who, &usage);
      seconds += Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
   }
   return seconds;
}

void Delete(benchmark::State &state, bool (*deleteTree)(const char *))
{
   double processor = 0;
   for ([[maybe_unused]] auto pass : state) {
      const std::string top = MakeTree();
      const double processorStart = ProcessorSeconds();
      const auto start = std::chrono::steady_clock::now();
      const bool deleted = deleteTree(top.c_str());
      const auto end = std::chrono::steady_clock::now();
      processor += ProcessorSeconds() - processorStart;
      state.SetIterationTime(std::chrono::duration<double>(end - start).count());
      if (top.empty() || !deleted || access(top.c_str(), F_OK) == 0) {
         state.SkipWithError("the tree was not made or not deleted");
         break;
      }
   }
   state.counters["cpu"] = benchmark::Counter(processor, benchmark::Counter::kAvgIterations);
}

void Settings(benchmark::internal::Benchmark *bench)
{
   bench->Iterations(PASSES)->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(Delete, File_DeleteDirectoryTree, File_DeleteDirectoryTree)->Apply(Settings);
BENCHMARK_CAPTURE(Delete, rm, DeleteWithRm)->Apply(Settings);
BENCHMARK_CAPTURE(Delete, remove_all, DeleteWithFilesystem)->Apply(Settings);
BENCHMARK_CAPTURE(Delete, find, DeleteWithFind)->Apply(Settings);

} // namespace
