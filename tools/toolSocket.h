#ifndef TESSEL_TOOLS_TOOLSOCKET_H
#define TESSEL_TOOLS_TOOLSOCKET_H

#include "base/owned.h"

#include <sys/stat.h>

/* A listening socket at a path, and the folder that was made for it, if any. */
struct ToolSocket {
   OwnedDescriptor listener; /* Closed on exec. */
   Owned<char> path;         /* Absolute. */
   Owned<char> folder;
   struct stat made; /* What was put at the path, to know it again. */
};

/* Makes the socket at path, or, with path null, in a new folder that nobody else can enter, under $XDG_RUNTIME_DIR
   or else /tmp. Only this user can connect to it. False if that cannot be done, which is reported and leaves
   nothing behind; whatever is at the path already is in the way and stays. */
[[nodiscard]] bool ToolSocket_Open(ToolSocket *made, const char *path);

/* Removes the socket from its place, unless something else is there by now, and its folder if it is empty. To be
   called after ToolSocket_Open, whatever it gave. */
void ToolSocket_Remove(ToolSocket *made);

/* path from the root, as a new string. Null, reported, if the current folder is not known. */
[[nodiscard]] char *ToolSocket_AbsolutePath(const char *path);

#endif
