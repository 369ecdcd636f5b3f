#ifndef TESSEL_LIB_MISC_POSIXINT_H
#define TESSEL_LIB_MISC_POSIXINT_H

int Posix_EuidAccess(const char *path, int mode);
[[nodiscard]] char *Posix_ReadLink(const char *path);
[[nodiscard]] char *Posix_RealPath(const char *path);

#endif
