#ifndef TESSEL_LOCATION_LOCATIONTABLES_H
#define TESSEL_LOCATION_LOCATIONTABLES_H

#include <cstdint>

/* What the location module knows about the product: constant tables. */

/* A program of the product. upCount: how many components to strip from the path of its executable to reach the
   product root. */
struct LocationProcessTag {
   const char *tag; /* Null ends the table. */
   uint32_t upCount;
};

/* A file or folder of the product. relativePath begins with "/" and is appended to the product root as it is;
   empty for the root itself. */
struct LocationKey {
   const char *key; /* Null ends the table. */
   const char *relativePath;
};

struct LocationConfig {
   const LocationProcessTag *processTags;
   const char *rootVariable; /* Environment variable that may hold the product root, or null. */
   const char *lastUsedFile; /* File that may hold it, or null. */
   const LocationKey *keys;
};

/* The product's own configuration. */
extern const LocationConfig LOCATION_PRODUCT_CONFIG;

/* Replaces the configuration that the module works from, which must outlive its use, and gives the one before:
   for tests, whose product is not installed under the fixed paths. */
const LocationConfig *LocationSetConfig(const LocationConfig *config);

#endif
