#ifndef TESSEL_LIB_FILE_NAMELIST_H
#define TESSEL_LIB_FILE_NAMELIST_H

#include "lib/public/owned.h"

#include <span>

/* What File_ListDirectory gave, released with errno kept. */
struct NameList {
   char **names = nullptr;
   int count = 0;

   NameList() = default;
   NameList(const NameList &) = delete;
   NameList &operator=(const NameList &) = delete;

   ~NameList()
   {
      const Owned<char *> array(names);
      for (int i = 0; i < count; i++) {
         const Owned<char> name(names[i]);
      }
   }

   [[nodiscard]] std::span<char *const> All() const
   {
      return {names, static_cast<size_t>(count)};
   }
};

#endif
