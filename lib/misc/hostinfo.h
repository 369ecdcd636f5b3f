#ifndef TESSEL_LIB_MISC_HOSTINFO_H
#define TESSEL_LIB_MISC_HOSTINFO_H

#include <cstddef>
#include <cstdint>

int32_t Hostinfo_Execute(const char *path, char *const *argv, bool wait, const int *keepFds,
                         size_t numKeepFds);
void Hostinfo_ResetChildState(const int *keepFds, size_t numKeepFds);

int32_t Hostinfo_RosettaState();
[[nodiscard]] char *Hostinfo_GetModulePath(uint32_t privilege);

#endif
