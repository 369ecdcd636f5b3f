#include "lib/misc/codeset/conversion/init.h"

#include "base/owned.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/icu.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/string/str.h"

#include <atomic>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::string_view DATA_FILE = "icudt44l.dat";
constexpr useconds_t INIT_NAP_MICROSECONDS = 250000;

/* Where a program without a resolver looks: a place that cannot exist, so that it runs without ICU. */
constexpr std::string_view DEFAULT_DIRECTORY = "/dev/null/Non-existing DEFAULT_LIBDIRECTORY";

std::atomic<uint32_t> initialised{0};
std::atomic<uint32_t> initLock{0};

bool Append(DynBuf *path, std::string_view text)
{
   return DynBuf_Append(path, text.data(), text.size());
}

bool AppendDirectory(DynBuf *path, const char *dataDirectory, LocationLookup lookup)
{
   if (dataDirectory != nullptr) {
      return Append(path, dataDirectory);
   }
   if (lookup == nullptr) {
      return Append(path, DEFAULT_DIRECTORY) && Append(path, "/icu");
   }
   const Owned<char> directory(lookup("icuDir"));
   return directory != nullptr && Append(path, directory.get());
}

/* The full name of the data file, or null. */
Owned<char> DataFilePath(const char *dataDirectory, LocationLookup lookup)
{
   DynBuf path;
   DynBuf_Init(&path);
   const bool complete = AppendDirectory(&path, dataDirectory, lookup) && Append(&path, "/") &&
                         Append(&path, DATA_FILE) && Append(&path, std::string_view("\0", 1));
   Owned<char> text(static_cast<char *>(DynBuf_Detach(&path)));
   if (!complete) {
      text.reset();
   }
   return text;
}

bool IsFile(const char *path)
{
   struct stat status;
   return stat(path, &status) == 0 && !S_ISDIR(status.st_mode);
}

void LockInit()
{
   uint32_t unlocked = 0;
   while (!initLock.compare_exchange_strong(unlocked, 1, std::memory_order_acquire)) {
      unlocked = 0;
      usleep(INIT_NAP_MICROSECONDS);
   }
}

void UnlockInit()
{
   initLock.store(0, std::memory_order_release);
}

[[noreturn]] void PanicNotInitialised()
{
   char message[64];
   Str_Sprintf(message, sizeof message, "Failed to initialize codeset.\n");
   Panic("%s", message);
}

} // namespace

void Unicode_Init(const char *dataDirectory)
{
   LockInit();
   if (initialised.load(std::memory_order_relaxed) == 0) {
      if (!CodeSet_Init(dataDirectory)) {
         UnlockInit();
         PanicNotInitialised();
      }
      initialised.store(1, std::memory_order_relaxed);
   }
   UnlockInit();
}

void Unicode_Init()
{
   Unicode_Init(nullptr);
}

void Unicode_InitDefault()
{
   Unicode_Init(nullptr);
}

void Unicode_Init(int /*argc*/, char ** /*argv*/, char ** /*environment*/, const char *dataDirectory)
{
   Unicode_Init(dataDirectory);
}

void CodeSetInit_FindIcu(const char *dataDirectory, LocationLookup lookup)
{
   const Owned<char> path = DataFilePath(dataDirectory, lookup);
   CodeSetEngine_Set(path != nullptr && IsFile(path.get()) ? CodeSetIcu_Open(path.get()) : nullptr);
}

bool CodeSet_Init(const char *dataDirectory)
{
   CodeSetInit_FindIcu(dataDirectory, Location_GetLookup());
   return true;
}
