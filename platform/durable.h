#ifndef TESSEL_PLATFORM_DURABLE_H
#define TESSEL_PLATFORM_DURABLE_H

/* What it takes for a change to survive a power cut. Both block until the medium has it and are not cut short by
   signals. */

/* The content and the size of an open file. False with errno set. A file that has nothing to write out, such as a
   device, is durable as it is. */
[[nodiscard]] bool Durable_File(int fd);

/* The entry that path names in its directory: that it was made, removed or replaced. False with errno set. True,
   without a promise, where the directory may not be read or the file system has no such operation. */
[[nodiscard]] bool Durable_Entry(const char *path);

#endif
