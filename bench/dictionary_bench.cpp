/* Loading and saving of 10,000 settings with 10,000 comments, beside GLib's GKeyFile and libconfig. Nobody's save is
   flushed to the medium: where Dictionary_WriteFile would do that, the two calls are answered here at once,
   for the time that it takes is the disk's. */

#include "lib/user/dictionary.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <libconfig.h>
#include <string>
#include <unistd.h>

/* The linker's name. NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c) */
extern "C" int __wrap_fsync(int /*fd*/)
{
   return 0;
}

namespace {

constexpr int SETTINGS = 10000;
constexpr int MANY_SETTINGS = 100000;

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

void Load(benchmark::State &state, uint32_t buckets, int settings)
{
   const std::string path = DictionaryPath(settings);
   for (auto unused : state) {
      Dictionary *dictionary = Dictionary_CreateWithSize(buckets, false);
      if (!Dictionary_Load(dictionary, path.c_str())) {
         state.SkipWithError("load");
      }
      Dictionary_Free(dictionary);
   }
}

/* One setting changes for every save. */
void Save(benchmark::State &state, uint32_t buckets, int settings)
{
   const std::string path = DictionaryPath(settings);
   Dictionary *dictionary = Dictionary_CreateWithSize(buckets, false);
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

void DictionaryLoad10000(benchmark::State &state)
{
   Load(state, 0, SETTINGS);
}

void DictionaryLoad10000Buckets16384(benchmark::State &state)
{
   Load(state, 16384, SETTINGS);
}

void DictionaryLoad100000(benchmark::State &state)
{
   Load(state, 0, MANY_SETTINGS);
}

void DictionaryLoad100000Buckets131072(benchmark::State &state)
{
   Load(state, 131072, MANY_SETTINGS);
}

void DictionarySave10000(benchmark::State &state)
{
   Save(state, 0, SETTINGS);
}

void DictionarySave100000(benchmark::State &state)
{
   Save(state, 131072, MANY_SETTINGS);
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

std::string KeyFilePath()
{
   return MakeFile("keyfile", "[settings]\n", "=", "\n", SETTINGS);
}

void KeyFileLoad10000(benchmark::State &state)
{
   const std::string path = KeyFilePath();
   for (auto unused : state) {
      g_key_file_free(LoadKeyFile(path));
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

void KeyFileSave10000(benchmark::State &state)
{
   const std::string path = KeyFilePath();
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

std::string ConfigPath()
{
   return MakeFile("libconfig", "", " = \"", "\";\n", SETTINGS);
}

void LibconfigLoad10000(benchmark::State &state)
{
   const std::string path = ConfigPath();
   for (auto unused : state) {
      config_t config;
      config_init(&config);
      if (config_read_file(&config, path.c_str()) != CONFIG_TRUE) {
         state.SkipWithError("load");
      }
      config_destroy(&config);
   }
}

/* Drops the comments: it does not keep any. */
void LibconfigSave10000(benchmark::State &state)
{
   const std::string path = ConfigPath();
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

BENCHMARK(KeyFileLoad10000)->Unit(benchmark::kMillisecond);
BENCHMARK(LibconfigLoad10000)->Unit(benchmark::kMillisecond);
BENCHMARK(DictionaryLoad10000)->Unit(benchmark::kMillisecond);
BENCHMARK(DictionaryLoad10000Buckets16384)->Unit(benchmark::kMillisecond);
BENCHMARK(DictionaryLoad100000)->Unit(benchmark::kMillisecond);
BENCHMARK(DictionaryLoad100000Buckets131072)->Unit(benchmark::kMillisecond);
BENCHMARK(KeyFileSave10000)->Unit(benchmark::kMillisecond);
BENCHMARK(LibconfigSave10000)->Unit(benchmark::kMillisecond);
BENCHMARK(DictionarySave10000)->Unit(benchmark::kMillisecond);
BENCHMARK(DictionarySave100000)->Unit(benchmark::kMillisecond);

} // namespace
