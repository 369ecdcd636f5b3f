#ifndef TESSEL_FUZZ_SUPPORT_SCRATCHFOLDER_H
#define TESSEL_FUZZ_SUPPORT_SCRATCHFOLDER_H

#include "base/owned.h"
#include "fuzz/support/fuzz.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

/* A folder in memory, where writing a file through to the disk costs nothing; removed at the end of the process. */
class ScratchFolder {
 public:
   ScratchFolder()
   {
      std::string pattern = "/dev/shm/tessel-fuzz-XXXXXX";
      REQUIRE(mkdtemp(pattern.data()) != nullptr);
      path_ = pattern;
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
   const OwnedDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
   REQUIRE(write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()));
}

inline std::string ReadFile(const std::string &path)
{
   const OwnedDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
   struct stat status;
   REQUIRE(fstat(file.get(), &status) == 0);
   std::string content(static_cast<size_t>(status.st_size), '\0');
   REQUIRE(read(file.get(), content.data(), content.size()) == status.st_size);
   return content;
}

#endif
