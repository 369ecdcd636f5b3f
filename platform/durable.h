#ifndef TESSEL_PLATFORM_DURABLE_H
#define TESSEL_PLATFORM_DURABLE_H

/* Makes what an open file holds, content and size, survive a power cut; of a folder that is its entries. Blocks until
   the medium has it and is not cut short by signals. False with errno set. A file that has nothing to write
   out, such as a device, is durable as it is. */
[[nodiscard]] bool Durable_File(int fd);

#endif
