#ifndef TESSEL_PLATFORM_POSIX_DESCRIPTORWALK_H
#define TESSEL_PLATFORM_POSIX_DESCRIPTORWALK_H

#include <cstddef>

/* Descriptors_CloseAllBut by one close for each number from the limit on open files down to first. Its cost grows
   with the limit: seconds where that is in the hundreds of millions. */
void DescriptorWalk_CloseAllBut(int first, const int *keep, size_t count);

#endif
