#include "location/location.h"

#include "base/owned.h"
#include "lib/misc/host/hostinfo.h"
#include "lib/misc/host/posixInt.h"
#include "lib/string/str.h"
#include "location/locationTables.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace {

/* A longer last-used file is refused, and so is one that fills this. */
constexpr size_t LAST_USED_MAX = 1024;

constexpr char ROOT_TAG[] = "LocationGetRoot";

const LocationConfig *sConfig = &LOCATION_PRODUCT_CONFIG;

/* Components to strip from the executable's path; 0 while no known program is running. */
uint32_t sUpCount = 0;

Owned<char> LocationRootFromVariable(const char *value)
{
   Owned<char> root(strdup(value));
   if (root == nullptr) {
      Warning("%s: Unable to copy the environment variable.\n", ROOT_TAG);
   }
   return root;
}

/* The text of the file as it is, a line end included. */
Owned<char> LocationLastUsed(const char *path)
{
   static constexpr char tag[] = "LocationLastUsed";
   char text[LAST_USED_MAX];

   const OwnedDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
   const ssize_t length = file.get() == -1 ? -1 : read(file.get(), text, sizeof text);
   if (length < 0 || static_cast<size_t>(length) >= sizeof text) {
      Log("%s: Failed opening lastLocationUsed.\n", tag);
      return nullptr;
   }
   text[length] = '\0';
   Owned<char> root(strdup(text));
   if (root == nullptr) {
      Log("%s: Failed to copy last used path: %s\n", tag, text);
   }
   return root;
}

Owned<char> LocationRootFromLastUsed(const char *path)
{
   Owned<char> root = LocationLastUsed(path);
   if (root == nullptr) {
      Warning("%s: Unable to determine the product location. "
              "It is likely that the product has never been run on this machine.\n",
              ROOT_TAG);
   }
   return root;
}

/* The two reports below have no line end; the next message continues on their line. */
Owned<char> LocationExecutable()
{
   const Owned<char> path(Hostinfo_GetModulePath(1));
   if (path == nullptr) {
      Warning("%s: Unable to retrieve path to executable.", ROOT_TAG);
      return nullptr;
   }
   Owned<char> resolved(Posix_RealPath(path.get()));
   if (resolved == nullptr) {
      Warning("%s: Unable to get the realpath for %s", ROOT_TAG, path.get());
   }
   return resolved;
}

/* With no components to strip, the executable's path itself is the root. */
Owned<char> LocationRootFromExecutable()
{
   Owned<char> path = LocationExecutable();
   if (path == nullptr) {
      return nullptr;
   }
   std::string_view root(path.get());
   for (uint32_t count = sUpCount; count > 0; count--) {
      const size_t slash = root.rfind('/');
      if (slash == std::string_view::npos) {
         Warning("%s: sUpCount (%u) is too large for %s\n", ROOT_TAG, sUpCount, path.get());
         return nullptr;
      }
      root = root.substr(0, slash);
   }
   path.get()[root.size()] = '\0';
   return path;
}

/* A known program never looks at the environment or the last-used file; they are for programs that are not at
   their place in the product. */
Owned<char> LocationGetRoot()
{
   if (sUpCount != 0) {
      return LocationRootFromExecutable();
   }
   if (geteuid() != getuid()) {
      Warning("%s: Cannot get location root of a setuid process.\n", ROOT_TAG);
      return nullptr;
   }
   const char *value = sConfig->rootVariable != nullptr ? getenv(sConfig->rootVariable) : nullptr;
   if (value != nullptr) {
      return LocationRootFromVariable(value);
   }
   if (sConfig->lastUsedFile != nullptr) {
      return LocationRootFromLastUsed(sConfig->lastUsedFile);
   }
   return LocationRootFromExecutable();
}

const LocationProcessTag *LocationFindProcessTag(const char *processTag)
{
   for (const LocationProcessTag *row = sConfig->processTags; row->tag != nullptr; row++) {
      if (strcmp(row->tag, processTag) == 0) {
         return row;
      }
   }
   return nullptr;
}

} // namespace

const LocationConfig *LocationSetConfig(const LocationConfig *config)
{
   return std::exchange(sConfig, config);
}

void Location_Init(const char *processTag)
{
   const LocationProcessTag *row = LocationFindProcessTag(processTag);
   const uint32_t upCount = row != nullptr ? row->upCount : 0;

   if (upCount == 0 || sUpCount != 0) {
      Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n", "Location_Init", sUpCount,
              processTag);
   }
   sUpCount = upCount;
}

const char *Location_GetRelative(const char *key)
{
   for (const LocationKey *row = sConfig->keys; row->key != nullptr; row++) {
      if (strcmp(row->key, key) == 0) {
         return row->relativePath;
      }
   }
   return nullptr;
}

char *Location_Get(const char *key)
{
   const char *relative = Location_GetRelative(key);
   if (relative == nullptr) {
      return nullptr;
   }
   const Owned<char> root = LocationGetRoot();
   if (root == nullptr) {
      return nullptr;
   }
   return Str_Asprintf(nullptr, "%s%s", root.get(), relative);
}

LocationLookup Location_GetLookup()
{
   return Location_Get;
}

const char *Location_GetLastUsedFile()
{
   return sConfig->lastUsedFile;
}
