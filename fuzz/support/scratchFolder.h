#ifndef TESSEL_FUZZ_SUPPORT_SCRATCHFOLDER_H
#define TESSEL_FUZZ_SUPPORT_SCRATCHFOLDER_H

#include "fuzz/support/fuzz.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

/* A folder of the process's own, removed at its end: in memory, where there is a place for that, since writing a file
   through to the disk costs nothing there. */
class ScratchFolder {
 public:
   ScratchFolder()
   {
      const bool memory = std::filesystem::exists("/dev/shm");
      path_ = (memory ? "/dev/shm" : std::filesystem::temp_directory_path().string()) + "/tessel-fuzz-XXXXXX";
      REQUIRE(mkdtemp(path_.data()) != nullptr);
   }

   ~ScratchFolder()
   {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
   }

   ScratchFolder(const ScratchFolder &) = delete;
   ScratchFolder &operator=(const ScratchFolder &) = delete;

   [[nodiscard]] std::string Path(const std::string &name = "") const
   {
      return path_ + "/" + name;
   }

 private:
   std::string path_;
};

inline void WriteFile(const std::string &path, std::string_view content)
{
   REQUIRE(std::ofstream(path, std::ios::binary) << content << std::flush);
}

inline std::string ReadFile(const std::string &path)
{
   std::ostringstream content;
   content << std::ifstream(path, std::ios::binary).rdbuf();
   return content.str();
}

#endif
