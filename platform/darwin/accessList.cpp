#include "platform/accessList.h"

#include <cerrno>
#include <copyfile.h>

bool AccessList_Copy(int from, int to)
{
   return fcopyfile(from, to, nullptr, COPYFILE_ACL) == 0 || errno == ENOTSUP;
}
