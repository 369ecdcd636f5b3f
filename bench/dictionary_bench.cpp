/* Loading and saving of settings with a comment each, as many as the argument says, beside GLib's GKeyFile and libconfig. Nobody's save is
   flushed to the medium: where Dictionary_WriteFile would do that, the two calls are answered here at once,
   for the time that it takes is the disk's. */

#include "lib/user/dictionary.h"

#include <benchmark/benchmark.h>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <libconfig.h>
#include <malloc.h>
#include <string>
#include <unistd.h>

/* The linker's name. NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c) */
extern "C" int __wrap_fsync(int /*fd*/)
{
   return 0;
}

namespace {

/* A folder for all files of the run. */
const std::string &Folder()
{
   static const std::string folder = [] {
      char pattern[] = "/tmp/tessel-bench-XXXXXX";
      return std::string(mkdtemp(pattern));
   }();
   return folder;
}

/* The same names, values and comments in the form of each of the three. */
std::string MakeFile(const std::string &name, const char *head, const char *open, const char *close,
                     int settings)
{
   const std::string path = Folder() + "/" + name + std::to_string(settings);
   FILE *file = fopen(path.c_str(), "we");
   std::string text = head;
   for (int i = 0; i < settings; i++) {
      const std::string number = std::to_string(i);
      text += "# what the setting of number " + number + " is good for\n";
      text += "device" + std::to_string(i % 97) + "_setting" + number + open + "some value of the number " +
              number + close;
   }
   fwrite(text.data(), 1, text.size(), file);
   fclose(file);
   return path;
}

std::string DictionaryPath(int settings)
{
   return MakeFile("dictionary", ".encoding = \"UTF-8\"\n", " = \"", "\"\n", settings);
}

int Settings(const benchmark::State &state)
{
   return static_cast<int>(state.range(0));
}

/* As many buckets as settings are expected, or what a caller gets who says nothing. */
enum class Buckets { EXPECTED, DEFAULT };

Dictionary *Create(const benchmark::State &state, Buckets buckets)
{
   return Dictionary_CreateWithSize(
       buckets == Buckets::EXPECTED ? std::bit_ceil(static_cast<uint32_t>(state.range(0))) : 0, false);
}

/* Tells how much of the heap a load takes. */
class HeapUse {
 public:
   void Report(benchmark::State &state) const
   {
      state.counters["memory_KiB"] = (Now() - before_) / 1024;
   }

 private:
   static double Now()
   {
      const struct mallinfo2 info = mallinfo2();
      return static_cast<double>(info.uordblks + info.hblkhd);
   }

   double before_ = Now();
};

template <Buckets buckets> void Load(benchmark::State &state)
{
   const std::string path = DictionaryPath(Settings(state));
   const HeapUse heap;
   for (auto unused : state) {
      Dictionary *dictionary = Create(state, buckets);
      if (!Dictionary_Load(dictionary, path.c_str())) {
         state.SkipWithError("load");
      }
      state.PauseTiming();
      heap.Report(state);
      state.ResumeTiming();
      Dictionary_Free(dictionary);
   }
}

/* One setting changes for every save. */
void Save(benchmark::State &state)
{
   const std::string path = DictionaryPath(Settings(state));
   Dictionary *dictionary = Create(state, Buckets::EXPECTED);
   if (!Dictionary_Load(dictionary, path.c_str())) {
      state.SkipWithError("load");
   }
   int value = 0;
   for (auto unused : state) {
      Dictionary_SetInt32(dictionary, ++value, 0, "changing");
      if (!Dictionary_WriteFile(dictionary, path.c_str())) {
         state.SkipWithError("save");
      }
   }
   Dictionary_Free(dictionary);
}

GKeyFile *LoadKeyFile(const std::string &path)
{
   GKeyFile *file = g_key_file_new();
   const auto flags = static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS);
   if (g_key_file_load_from_file(file, path.c_str(), flags, nullptr) == 0) {
      abort();
   }
   return file;
}

std::string KeyFilePath(int settings)
{
   return MakeFile("keyfile", "[settings]\n", "=", "\n", settings);
}

void KeyFileLoad(benchmark::State &state)
{
   const std::string path = KeyFilePath(Settings(state));
   const HeapUse heap;
   for (auto unused : state) {
      GKeyFile *file = LoadKeyFile(path);
      state.PauseTiming();
      heap.Report(state);
      state.ResumeTiming();
      g_key_file_free(file);
   }
}

/* By way of a temporary file, as the others; its own g_key_file_save_to_file would flush. */
bool SaveText(const std::string &path, const char *text, size_t length)
{
   const std::string temporary = path + "~";
   const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   const bool written = write(fd, text, length) == static_cast<ssize_t>(length);
   return close(fd) == 0 && written && rename(temporary.c_str(), path.c_str()) == 0;
}

void KeyFileSave(benchmark::State &state)
{
   const std::string path = KeyFilePath(Settings(state));
   GKeyFile *file = LoadKeyFile(path);
   int value = 0;
   for (auto unused : state) {
      gsize length = 0;
      g_key_file_set_integer(file, "settings", "changing", ++value);
      gchar *text = g_key_file_to_data(file, &length, nullptr);
      if (!SaveText(path, text, length)) {
         state.SkipWithError("save");
      }
      g_free(text);
   }
   g_key_file_free(file);
}

std::string ConfigPath(int settings)
{
   return MakeFile("libconfig", "", " = \"", "\";\n", settings);
}

void LibconfigLoad(benchmark::State &state)
{
   const std::string path = ConfigPath(Settings(state));
   const HeapUse heap;
   for (auto unused : state) {
      config_t config;
      config_init(&config);
      if (config_read_file(&config, path.c_str()) != CONFIG_TRUE) {
         state.SkipWithError("load");
      }
      state.PauseTiming();
      heap.Report(state);
      state.ResumeTiming();
      config_destroy(&config);
   }
}

/* Drops the comments: it does not keep any. */
void LibconfigSave(benchmark::State &state)
{
   const std::string path = ConfigPath(Settings(state));
   config_t config;
   config_init(&config);
   if (config_read_file(&config, path.c_str()) != CONFIG_TRUE) {
      state.SkipWithError("load");
   }
   config_setting_t *changing = config_setting_add(config_root_setting(&config), "changing", CONFIG_TYPE_INT);
   int value = 0;
   for (auto unused : state) {
      config_setting_set_int(changing, ++value);
      const std::string temporary = path + "~";
      if (config_write_file(&config, temporary.c_str()) != CONFIG_TRUE ||
          rename(temporary.c_str(), path.c_str()) != 0) {
         state.SkipWithError("save");
      }
   }
   config_destroy(&config);
}

void Compared(benchmark::internal::Benchmark *bench)
{
   bench->Arg(10000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(Load<Buckets::EXPECTED>)->Name("dictionary/Load/tessel")->Apply(Compared);
BENCHMARK(Load<Buckets::DEFAULT>)->Name("dictionary/Load/tessel-default-buckets")->Apply(Compared);
BENCHMARK(KeyFileLoad)->Name("dictionary/Load/glib")->Apply(Compared);
BENCHMARK(LibconfigLoad)->Name("dictionary/Load/libconfig")->Apply(Compared);
BENCHMARK(Save)->Name("dictionary/Save/tessel")->Apply(Compared);
BENCHMARK(KeyFileSave)->Name("dictionary/Save/glib")->Apply(Compared);
BENCHMARK(LibconfigSave)->Name("dictionary/Save/libconfig")->Apply(Compared);

void Sizes(benchmark::internal::Benchmark *bench)
{
   bench->RangeMultiplier(10)->Range(100, 1000000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(Load<Buckets::EXPECTED>)->Name("dictionary-grows/Load/tessel")->Apply(Sizes);
BENCHMARK(KeyFileLoad)->Name("dictionary-grows/Load/glib")->Apply(Sizes);
BENCHMARK(Save)->Name("dictionary-grows/Save/tessel")->Apply(Sizes);
BENCHMARK(KeyFileSave)->Name("dictionary-grows/Save/glib")->Apply(Sizes);

} // namespace
