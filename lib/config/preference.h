#ifndef TESSEL_LIB_CONFIG_PREFERENCE_H
#define TESSEL_LIB_CONFIG_PREFERENCE_H

#include <cstdint>

struct MsgList;

/* The settings of the process, looked up in six layers. The first one that defines a name decides:

      1  GLOBAL SETTINGS    the product's preference directory, "settings"
      2  NON PERSISTENT     Preference_SetFromString
      3  USER PREFERENCES   ~/Library/Preferences/Kestra Tessel/preferences
      4  USER DEFAULTS      ~/Library/Preferences/Kestra Tessel/config
      5  HOST DEFAULTS      /Library/Preferences/Kestra Tessel/config
      6  SITE DEFAULTS      the product's preference directory, "config"

   A file that cannot be read is logged and no failure; of one that breaks off at an error the part before
   counts, so that a slip in it does not undo the restrictions above. Layers 3 and 4 stay empty where the host
   defaults set "disableUserPreferences", and in a process whose effective user is not the real one. A value
   that is not of the type asked for is warned of once, with file and line, and fallback holds.

   Every routine may be called from any thread, but Preference_Exit only while no other runs. All but the
   initialisation wait for one another. */

/* Reads the layers, once: a second call changes nothing. The second form leaves layers 3 and 4 empty. Always true. */
bool Preference_Init();
bool Preference_InitNoUser();

/* Back to the state before the initialisation. */
void Preference_Exit();

/* The value of a setting, by the rules of Dictionary_GetBool and its kin. A name that no layer defines gives fallback,
   which is then kept in layer 3 in memory. Before the initialisation: fallback, logged. Strings are new ones,
   which the caller frees, or null; a path name has a leading "~" replaced, see Util_ExpandHome. */
[[nodiscard]] bool Preference_GetBool(bool fallback, const char *name);
[[nodiscard]] int32_t Preference_GetTriState(int32_t fallback, const char *name);
[[nodiscard]] int32_t Preference_GetInt32(int32_t fallback, const char *name);
[[nodiscard]] int64_t Preference_GetInt64(int64_t fallback, const char *name);
[[nodiscard]] double Preference_GetDouble(double fallback, const char *name);
[[nodiscard]] char *Preference_GetString(const char *fallback, const char *name);
[[nodiscard]] char *Preference_GetPathName(const char *fallback, const char *name);

/* Whether no layer defines the name; true before the initialisation. */
[[nodiscard]] bool Preference_NotSet(const char *name);

/* Sets in layer 2 from a text of the form NAME=VALUE. Unless overwrite, a name that the layer has is left alone, with a
   message to the list, if one is given. Does nothing before the initialisation. */
void Preference_SetFromString(const char *text, bool overwrite, MsgList *messages = nullptr);

/* Logs every layer with its path and settings. */
void Preference_Log();

/* One layer's word on a name; lives for the time of the visit. */
struct PreferenceLayer {
   const char *heading; /* As in the list above. */
   const char *path;    /* Null: the layer has no file. */
   bool read;           /* The file was read to its end. */
   const char *value;   /* Null: the layer does not define the name. */
   int line;            /* The line of the file, or 0. */
   bool decides;
};

/* Shows each layer in order. visit must not call into this module. Nothing happens before the initialisation. */
void Preference_Explain(const char *name, void (*visit)(const PreferenceLayer *layer, void *context),
                        void *context);

#endif
