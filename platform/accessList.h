#ifndef TESSEL_PLATFORM_ACCESSLIST_H
#define TESSEL_PLATFORM_ACCESSLIST_H

/* Access control lists of files, which let in more than the mode says. */

/* Gives one open file the list of another, or takes its own away if that has none. On macOS entries that the folder has
   handed down stay. A file system without lists is none to fail on. Does not block. False with errno set. */
[[nodiscard]] bool AccessList_Copy(int from, int to);

#endif
