#ifndef TESSEL_LIB_FILE_FILE_H
#define TESSEL_LIB_FILE_FILE_H

#include <sys/stat.h>

struct WalkDirContext;

[[nodiscard]] bool File_DeleteDirectoryTree(const char *path);
[[nodiscard]] bool File_DeleteDirectoryContent(const char *path);
int File_ListDirectory(const char *path, char ***names);
[[nodiscard]] WalkDirContext *File_WalkDirectoryStart(const char *path);
bool File_WalkDirectoryNext(WalkDirContext *context, char **name);
void File_WalkDirectoryEnd(WalkDirContext *context);
int File_Unlink(const char *path);
int FileDeletion(const char *path, bool handleLink);
int FileRemoveDirectory(const char *path);
int FileAttributes(const char *path, struct stat *attributes);

#endif
