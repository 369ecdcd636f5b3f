#ifndef TESSEL_FUZZ_SUPPORT_DICTIONARYTEXT_H
#define TESSEL_FUZZ_SUPPORT_DICTIONARYTEXT_H

#include "fuzz/support/fuzz.h"
#include "lib/dict/dictll.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/read.h"

#include <algorithm>
#include <strings.h>
#include <utility>
#include <vector>

/* Dictionaries and the texts of their files, for the targets that hold one against the other. */

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
   struct Visit {
      const Dictionary *dictionary;
      Settings settings;
   } visit = {dictionary, {}};
   Dictionary_ForEach(
       dictionary,
       [](const char *name, void *context) {
          auto *to = static_cast<Visit *>(context);
          to->settings.emplace_back(name, Take(Dictionary_GetText(to->dictionary, name)));
          return true;
       },
       &visit);
   return visit.settings;
}

inline void RequireSame(const Settings &found, const Settings &expected)
{
   for (size_t i = 0; i < std::min(found.size(), expected.size()); i++) {
      REQUIRE_SAME(found[i].first, expected[i].first);
      REQUIRE_SAME(found[i].second, expected[i].second);
   }
   REQUIRE(found.size() == expected.size());
}

inline bool SameName(const std::string &one, const std::string &two)
{
   return strcasecmp(one.c_str(), two.c_str()) == 0;
}

/* A line of a file, without its line feed; name and value if it is a definition. */
struct FileLine {
   std::string text;
   std::optional<std::string> name;
   std::optional<std::string> value;

   [[nodiscard]] bool IsMetavariable() const
   {
      return name && (name->front() == '.' || DictionaryIsEncodingName(*name));
   }
};

inline std::vector<FileLine> Lines(const std::string &text)
{
   std::vector<FileLine> lines;
   const char *next = text.data();
   const char *const end = next + text.size();
   while (next != end) {
      char *line = nullptr;
      char *name = nullptr;
      char *value = nullptr;
      next = DictLL_UnmarshalLine(next, static_cast<size_t>(end - next), &line, &name, &value);
      lines.push_back({Take(line), std::nullopt, std::nullopt});
      if (name != nullptr) {
         lines.back().name = Take(name);
         lines.back().value = Take(value);
      }
   }
   return lines;
}

/* Without each carriage return before a line feed. */
inline std::string WithoutReturns(std::string text)
{
   for (size_t at = 0; (at = text.find("\r\n", at)) != std::string::npos;) {
      text.erase(at, 1);
   }
   return text;
}

#endif
