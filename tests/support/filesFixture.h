#ifndef TESSEL_TESTS_SUPPORT_FILESFIXTURE_H
#define TESSEL_TESTS_SUPPORT_FILESFIXTURE_H

#include "lib/file/file.h"
#include "tests/support/testSupport.h"

#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

using Names = std::multiset<std::string>;

inline Names List(const std::string &path)
{
   char **names = nullptr;
   const int count = File_ListDirectory(path.c_str(), &names);
   Names list;
   for (int i = 0; i < count; i++) {
      list.insert(Take(names[i]));
   }
   free(names);
   return list;
}

/* A folder, and someone in it who can be refused things, unlike root. What is outside of a tree is in the folder, too. */
class Files : public testing::Test {
 protected:
   ~Files() override
   {
      EXPECT_TRUE(ordinary_ && seteuid(getuid()) == 0);
   }

   [[nodiscard]] std::string At(const std::string &name) const
   {
      return scratch_.Path(name);
   }

   /* Folders ("name/"), links ("name>target"), pipes ("name|") and files. */
   void Make(const Names &things) const
   {
      for (const std::string &thing : things) {
         const size_t mark = thing.find_first_of("|>");
         const std::string path = At(thing.substr(0, mark));
         fs::create_directories(fs::path(path).parent_path());
         if (mark == std::string::npos && !thing.ends_with('/')) {
            WriteFile(path, "content");
         } else if (mark != std::string::npos) {
            ASSERT_EQ(thing[mark] == '|' ? mkfifo(path.c_str(), 0600)
                                         : symlink(thing.substr(mark + 1).c_str(), path.c_str()),
                      0);
         }
      }
   }

   void Mode(mode_t mode, const char *name) const
   {
      ASSERT_EQ(chmod(At(name).c_str(), mode), 0);
   }

   /* What was logged, with "#" for the error. */
   [[nodiscard]] std::string Log(int error = 0) const
   {
      std::string text = scratch_.Shorten(log_.TakeText());
      const std::string number = std::to_string(error);
      for (size_t at = 0; (at = text.find(number, at)) != std::string::npos;) {
         text.replace(at, number.size(), "#");
      }
      return text;
   }

   const bool ordinary_ = geteuid() != 0 || seteuid(65534) == 0;
   const ScratchFolder scratch_;
   const CapturedLog log_;
};

#endif
