#include "lib/config/preference.h"

#include "base/owned.h"
#include "lib/misc/host/home.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/misc/rankedLock.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"

#include <array>
#include <atomic>
#include <unistd.h>

namespace {

constexpr uint32_t LOCK_RANK = 0xF0007100;

constexpr const char *USER_PREFERENCES_PATH = "~/Library/Preferences/Kestra Tessel/preferences";
constexpr const char *USER_DEFAULTS_PATH = "~/Library/Preferences/Kestra Tessel/config";
constexpr const char *HOST_DEFAULTS_PATH = "/Library/Preferences/Kestra Tessel/config";

/* Deliberately of no use. */
constexpr const char *NO_DIRECTORY = "/dev/null/Non-existing DEFAULT_LIBDIRECTORY";

constexpr const char *DISABLE_USER = "disableUserPreferences";

/* In the order of lookups. */
enum PreferenceIndex : uint8_t { GLOBAL, NON_PERSISTENT, USER, USER_DEFAULTS, HOST, SITE, LAYERS };

constexpr std::array<const char *, LAYERS> HEADINGS = {"GLOBAL SETTINGS",  "NON PERSISTENT",
                                                       "USER PREFERENCES", "USER DEFAULTS",
                                                       "HOST DEFAULTS",    "SITE DEFAULTS"};

struct PreferenceFile {
   Dictionary *dictionary;
   char *path; /* Null: none. */
   bool read;
};

struct PreferenceState {
   RankedLock *lock;
   MsgList *messages; /* What the dictionaries say of values that are not of the type asked for. */
   std::array<PreferenceFile, LAYERS> layers;
};

/* Null before the initialisation. */
std::atomic<PreferenceState *> sState;

void PreferenceRead(PreferenceFile *layer)
{
   if (layer->path == nullptr) {
      return;
   }
   layer->read = DictionaryLoad(layer->dictionary, layer->path, true, ENCODING_DEFAULT, nullptr);
   if (!layer->read) {
      Log("PREF Optional preferences file not found at %s. Using default values.\n", layer->path);
   }
}

/* A value that does not convert would otherwise leave no trace of why the setting has no effect. */
void PreferenceWarn(PreferenceState *state, const PreferenceFile &layer, const char *name)
{
   for (size_t i = 0; i < MsgList_Count(state->messages); i++) {
      Warning("PREF %s line %d: %s", layer.path != nullptr ? layer.path : "(no file)",
              Dictionary_GetLineNumber(layer.dictionary, name), MsgList_Get(state->messages, i)->text);
   }
   MsgList_Rollback(state->messages, 0);
}

/* The product's preference directory as a new string, or null if it is not known. */
char *PreferenceDirectory(Dictionary *hostDefaults)
{
   const LocationLookup lookup = Location_GetLookup();
   if (lookup != nullptr) {
      return lookup("prefDir");
   }
   char *const given = Dictionary_GetString(hostDefaults, nullptr, "libdir");
   return given != nullptr ? given : Util_SafeStrdup(NO_DIRECTORY);
}

void PreferenceSetProductPaths(PreferenceState *state)
{
   const Owned<char> directory(PreferenceDirectory(state->layers[HOST].dictionary));
   if (directory != nullptr) {
      state->layers[GLOBAL].path = Str_SafeAsprintf(nullptr, "%s%s", directory.get(), "/settings");
      state->layers[SITE].path = Str_SafeAsprintf(nullptr, "%s%s", directory.get(), "/config");
   }
}

/* A set-uid program must not do what the files of its caller say. */
void PreferenceSetUserPaths(PreferenceState *state)
{
   if (getuid() != geteuid()) {
      Log("setuid: ignoring user's config and preferences\n");
      return;
   }
   state->layers[USER].path = Util_ExpandHome(USER_PREFERENCES_PATH);
   state->layers[USER_DEFAULTS].path = Util_ExpandHome(USER_DEFAULTS_PATH);
}

PreferenceState *PreferenceBuild(bool wantsUser)
{
   auto *state = static_cast<PreferenceState *>(Util_SafeCalloc(1, sizeof(PreferenceState)));
   state->lock = RankedLock_Create("preferenceLock", LOCK_RANK);
   state->messages = MsgList_Create();
   for (PreferenceFile &layer : state->layers) {
      layer.dictionary = Dictionary_Create();
      Dictionary_SetMessageList(layer.dictionary, state->messages);
   }
   PreferenceFile *const host = &state->layers[HOST];
   host->path = Util_SafeStrdup(HOST_DEFAULTS_PATH);
   PreferenceRead(host);
   const bool disabled = Dictionary_GetBool(host->dictionary, false, DISABLE_USER);
   PreferenceWarn(state, *host, DISABLE_USER);
   if (disabled) {
      Log("PREF Disabling user preferences because disableUserPreferences is set.\n");
      wantsUser = false;
   }
   PreferenceSetProductPaths(state);
   if (wantsUser) {
      PreferenceSetUserPaths(state);
   }
   for (const PreferenceIndex index : {GLOBAL, SITE, USER_DEFAULTS, USER}) {
      PreferenceRead(&state->layers[index]);
   }
   return state;
}

void PreferenceFree(PreferenceState *state)
{
   const Owned<PreferenceState> owned(state);
   for (const PreferenceFile &layer : state->layers) {
      const Owned<char> path(layer.path);
      Dictionary_Free(layer.dictionary);
   }
   MsgList_Free(state->messages);
   RankedLock_Free(state->lock);
}

bool PreferenceInit(bool wantsUser)
{
   if (sState.load(std::memory_order_acquire) != nullptr) {
      return true;
   }
   PreferenceState *const built = PreferenceBuild(wantsUser);
   PreferenceState *published = nullptr;
   if (!sState.compare_exchange_strong(published, built, std::memory_order_acq_rel)) {
      PreferenceFree(built);
   }
   return true;
}

/* The first layer that defines the name, or LAYERS. */
size_t PreferenceFind(const PreferenceState *state, const char *name)
{
   size_t index = 0;
   while (index < LAYERS && !Dictionary_IsDefined(state->layers[index].dictionary, name)) {
      index++;
   }
   return index;
}

/* Reads the name from the layer that decides, with one of the dictionary's getters. */
template <typename Result, typename Fallback>
Result PreferenceGet(PreferenceState *state, Fallback fallback, const char *name,
                     Result (*get)(Dictionary *, Fallback, const char *, ...))
{
   const RankedLockHold hold(state->lock);
   const size_t found = PreferenceFind(state, name);
   const PreferenceFile &layer = state->layers[found != LAYERS ? found : size_t{USER}];
   const Result value = get(layer.dictionary, fallback, "%s", name);
   PreferenceWarn(state, layer, name);
   return value;
}

/* The state for a getter; null, logged: it is too early. */
PreferenceState *PreferenceStateFor(const char *name)
{
   PreferenceState *const state = sState.load(std::memory_order_acquire);
   if (state == nullptr) {
      Log("PREF early PreferenceGet(%s), using default\n", name);
   }
   return state;
}

template <typename Value>
Value PreferenceGetValue(Value fallback, const char *name,
                         Value (*get)(Dictionary *, Value, const char *, ...))
{
   PreferenceState *const state = PreferenceStateFor(name);
   return state != nullptr ? PreferenceGet(state, fallback, name, get) : fallback;
}

} // namespace

bool Preference_Init()
{
   return PreferenceInit(true);
}

bool Preference_InitNoUser()
{
   return PreferenceInit(false);
}

void Preference_Exit()
{
   PreferenceState *const state = sState.exchange(nullptr, std::memory_order_acq_rel);
   if (state != nullptr) {
      PreferenceFree(state);
   }
}

bool Preference_GetBool(bool fallback, const char *name)
{
   return PreferenceGetValue(fallback, name, Dictionary_GetBool);
}

int32_t Preference_GetTriState(int32_t fallback, const char *name)
{
   return PreferenceGetValue(fallback, name, Dictionary_GetTriState);
}

int32_t Preference_GetInt32(int32_t fallback, const char *name)
{
   return PreferenceGetValue(fallback, name, Dictionary_GetInt32);
}

int64_t Preference_GetInt64(int64_t fallback, const char *name)
{
   return PreferenceGetValue(fallback, name, Dictionary_GetInt64);
}

double Preference_GetDouble(double fallback, const char *name)
{
   return PreferenceGetValue(fallback, name, Dictionary_GetDouble);
}

char *Preference_GetString(const char *fallback, const char *name)
{
   PreferenceState *const state = PreferenceStateFor(name);
   return state != nullptr ? PreferenceGet(state, fallback, name, Dictionary_GetString)
                           : Util_SafeStrdup(fallback);
}

char *Preference_GetPathName(const char *fallback, const char *name)
{
   const SecretString value(Preference_GetString(fallback, name));
   return Util_ExpandHome(value.get());
}

bool Preference_NotSet(const char *name)
{
   PreferenceState *const state = sState.load(std::memory_order_acquire);
   if (state == nullptr) {
      return true;
   }
   const RankedLockHold hold(state->lock);
   return PreferenceFind(state, name) == LAYERS;
}

void Preference_SetFromString(const char *text, bool overwrite, MsgList *messages)
{
   PreferenceState *const state = sState.load(std::memory_order_acquire);
   if (state == nullptr) {
      return;
   }
   const RankedLockHold hold(state->lock);
   Dictionary_SetFromString(state->layers[NON_PERSISTENT].dictionary, text, !overwrite, messages);
}

void Preference_Log()
{
   PreferenceState *const state = sState.load(std::memory_order_acquire);
   if (state == nullptr) {
      return;
   }
   const RankedLockHold hold(state->lock);
   for (size_t index = 0; index < LAYERS; index++) {
      const PreferenceFile &layer = state->layers[index];
      if (layer.path != nullptr || (index != USER && index != USER_DEFAULTS)) {
         Log("DICT --- %s %s\n", HEADINGS[index], layer.path);
         Dictionary_Dump(layer.dictionary);
      }
   }
}

void Preference_Explain(const char *name, void (*visit)(const PreferenceLayer *layer, void *context),
                        void *context)
{
   PreferenceState *const state = sState.load(std::memory_order_acquire);
   if (state == nullptr) {
      return;
   }
   const RankedLockHold hold(state->lock);
   const size_t deciding = PreferenceFind(state, name);
   for (size_t index = 0; index < LAYERS; index++) {
      const PreferenceFile &layer = state->layers[index];
      const SecretString value(Dictionary_GetText(layer.dictionary, name));
      const PreferenceLayer view = {.heading = HEADINGS[index],
                                    .path = layer.path,
                                    .read = layer.read,
                                    .value = value.get(),
                                    .line = Dictionary_GetLineNumber(layer.dictionary, name),
                                    .decides = index == deciding};
      visit(&view, context);
   }
}
