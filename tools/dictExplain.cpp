#include "tools/dictExplain.h"

#include "base/owned.h"
#include "lib/config/preference.h"
#include "lib/dict/dictll.h"
#include "lib/misc/host/hostinfo.h"
#include "lib/misc/host/posixInt.h"
#include "lib/string/str.h"
#include "lib/user/dictionary.h"
#include "location/location.h"

#include <cstdio>
#include <string_view>

namespace {

/* Only from its place in a bundle does the program know the product's root; elsewhere the environment or the last use
   of the product tells it. */
void DictExplainLocate()
{
   static constexpr std::string_view place = "/Contents/Library/tessel-dict";
   const Owned<char> path(Hostinfo_GetModulePath(1));
   const Owned<char> real(path != nullptr ? Posix_RealPath(path.get()) : nullptr);

   if (real != nullptr && std::string_view(real.get()).ends_with(place)) {
      Location_Init("tessel-dict");
   }
}

struct Explanation {
   const char *name;
   bool decided;
};

/* Where a layer's word stands, or why there is none. */
Owned<char> DictExplainPlace(const PreferenceLayer &layer)
{
   if (layer.path == nullptr) {
      return Owned<char>(Str_SafeAsprintf(nullptr, "no file"));
   }
   if (layer.value != nullptr && layer.line != 0) {
      return Owned<char>(Str_SafeAsprintf(nullptr, "%s line %d", layer.path, layer.line));
   }
   return Owned<char>(Str_SafeAsprintf(nullptr, "%s%s", layer.path, layer.read ? "" : " (cannot be read)"));
}

/* Failures of standard output are seen at the end of the program. */
void DictExplainVerdict(const PreferenceLayer *layer, void *context)
{
   auto *explanation = static_cast<Explanation *>(context);
   if (layer->decides) {
      const Owned<char> place = DictExplainPlace(*layer);
      const Owned<char> text(Str_SafeAsprintf(nullptr, "decided by %s, %s:\n", layer->heading, place.get()));
      explanation->decided = true;
      fputs(text.get(), stdout);
      static_cast<void>(DictLL_WriteLine(stdout, explanation->name, layer->value));
   }
}

void DictExplainLayer(const PreferenceLayer *layer, void *context)
{
   const Owned<char> place = DictExplainPlace(*layer);
   const Owned<char> head(
       Str_SafeAsprintf(nullptr, "%c %-16s  %s\n", layer->decides ? '*' : ' ', layer->heading, place.get()));
   fputs(head.get(), stdout);
   if (layer->value != nullptr) {
      fputs("     ", stdout);
      static_cast<void>(DictLL_WriteLine(stdout, static_cast<Explanation *>(context)->name, layer->value));
   }
}

} // namespace

bool DictExplain_Print(const char *name, uint64_t maxBytes)
{
   Explanation explanation = {.name = name, .decided = false};

   DictionaryLoadOnlyRegular(maxBytes);
   DictExplainLocate();
   Preference_Init();
   Preference_Explain(name, DictExplainVerdict, &explanation);
   if (!explanation.decided) {
      fputs("decided by none of the layers: every program uses its own default\n", stdout);
   }
   fputs("\n", stdout);
   Preference_Explain(name, DictExplainLayer, &explanation);
   Preference_Exit();
   return explanation.decided;
}
