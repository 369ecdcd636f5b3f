#ifndef TESSEL_FUZZ_SUPPORT_DICTIONARYTEXT_H
#define TESSEL_FUZZ_SUPPORT_DICTIONARYTEXT_H

#include "fuzz/support/fuzz.h"
#include "lib/user/dictionary.h"

#include <utility>
#include <vector>

/* What the targets of dictionaries share. */

struct DictionaryEnd {
   void operator()(Dictionary *dictionary) const
   {
      Dictionary_Free(dictionary);
   }
};

using OwnedDictionary = std::unique_ptr<Dictionary, DictionaryEnd>;

/* Names and values, in order. */
using Settings = std::vector<std::pair<std::string, std::string>>;

inline Settings AllSettings(const Dictionary *dictionary)
{
   std::pair<const Dictionary *, Settings> visit = {dictionary, {}};
   Dictionary_ForEach(
       dictionary,
       [](const char *name, void *context) {
          auto *to = static_cast<std::pair<const Dictionary *, Settings> *>(context);
          to->second.emplace_back(name, Take(Dictionary_GetText(to->first, name)));
          return true;
       },
       &visit);
   return visit.second;
}

/* The file's text; nothing if it must not be written. */
inline std::optional<std::string> Written(Dictionary *dictionary)
{
   char *text = nullptr;
   size_t size = 0;
   if (!Dictionary_WriteToBuffer(dictionary, true, &text, &size)) {
      REQUIRE(text == nullptr && size == 0);
      return std::nullopt;
   }
   std::string all(text, size - 1);
   REQUIRE(text[size - 1] == '\0');
   free(text);
   return all;
}

#endif
