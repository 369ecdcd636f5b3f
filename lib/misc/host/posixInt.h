#ifndef TESSEL_LIB_MISC_HOST_POSIX_INT_H
#define TESSEL_LIB_MISC_HOST_POSIX_INT_H

/* System calls on UTF-8 paths. A path that the current encoding cannot hold fails with ERANGE. */

/* The access test for the effective identity: deliberately not provided, always -1 with ENOSYS. Callers ask for the
   attributes instead. */
int Posix_EuidAccess(const char *path, int mode);

/* The text of a symbolic link: a new string that the caller frees. Null with errno set: EINVAL for what is no link,
   ERANGE for a text that is not valid in the current encoding. */
[[nodiscard]] char *Posix_ReadLink(const char *path);

/* The canonical form of a path, without links, "." and "..": a new string that the caller frees. Null with errno set;
   ENAMETOOLONG if the form has more than 1,023 bytes. A form that is not valid in the current encoding ends
   the process. */
[[nodiscard]] char *Posix_RealPath(const char *path);

#endif
