#ifndef TESSEL_LIB_MISC_HOST_HOME_H
#define TESSEL_LIB_MISC_HOST_HOME_H

/* The path with "~" or "~USER" at its start replaced by the home directory: for "~" that is $HOME, if set and not empty,
   else the user database's for the real user. A new string that the caller frees; null for null and for an
   unknown home. */
[[nodiscard]] char *Util_ExpandHome(const char *path);

#endif
