#include "lib/misc/codeset/conversion/init.h"

#include "base/owned.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/icu.h"
#include "lib/misc/memory/dynbuf.h"

#include <atomic>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::string_view DATA_FILE = "icudt44l.dat";
constexpr useconds_t INIT_NAP_MICROSECONDS = 250000;

/* Where a program without a resolver looks: a place that cannot exist, so that it runs without ICU. */
constexpr std::string_view DEFAULT_DIRECTORY = "/dev/null/Non-existing DEFAULT_LIBDIRECTORY";

std::atomic<uint32_t> sInitialised{0};
std::atomic<uint32_t> sInitLock{0};

bool CodeSetAppend(DynBuf *path, std::string_view text)
{
   return DynBuf_Append(path, text.data(), text.size());
}

bool CodeSetAppendDirectory(DynBuf *path, const char *dataDirectory, LocationLookup lookup)
{
   if (dataDirectory != nullptr) {
      return CodeSetAppend(path, dataDirectory);
   }
   if (lookup == nullptr) {
      return CodeSetAppend(path, DEFAULT_DIRECTORY) && CodeSetAppend(path, "/icu");
   }
   const Owned<char> directory(lookup("icuDir"));
   return directory != nullptr && CodeSetAppend(path, directory.get());
}

/* The full name of the data file, or null. */
Owned<char> CodeSetDataFilePath(const char *dataDirectory, LocationLookup lookup)
{
   OwnedDynBuf path;
   const bool complete = CodeSetAppendDirectory(&path, dataDirectory, lookup) && CodeSetAppend(&path, "/") &&
                         CodeSetAppend(&path, DATA_FILE) && CodeSetAppend(&path, std::string_view("\0", 1));
   return Owned<char>(complete ? static_cast<char *>(DynBuf_Detach(&path)) : nullptr);
}

bool CodeSetIsFile(const char *path)
{
   struct stat status;
   return stat(path, &status) == 0 && !S_ISDIR(status.st_mode);
}

void CodeSetLockInit()
{
   uint32_t unlocked = 0;
   while (!sInitLock.compare_exchange_strong(unlocked, 1, std::memory_order_acquire)) {
      unlocked = 0;
      usleep(INIT_NAP_MICROSECONDS);
   }
}

void CodeSetUnlockInit()
{
   sInitLock.store(0, std::memory_order_release);
}

} // namespace

void Unicode_Init(const char *dataDirectory)
{
   CodeSetLockInit();
   if (sInitialised.load(std::memory_order_relaxed) == 0) {
      if (!CodeSet_Init(dataDirectory)) {
         CodeSetUnlockInit();
         Panic("%s", "Failed to initialize codeset.\n");
      }
      sInitialised.store(1, std::memory_order_relaxed);
   }
   CodeSetUnlockInit();
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
   const Owned<char> path = CodeSetDataFilePath(dataDirectory, lookup);
   CodeSetEngine_Set(path != nullptr && CodeSetIsFile(path.get()) ? CodeSetIcu_Open(path.get()) : nullptr);
}

bool CodeSet_Init(const char *dataDirectory)
{
   CodeSetInit_FindIcu(dataDirectory, Location_GetLookup());
   return true;
}
