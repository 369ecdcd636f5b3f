/* The daemon's runtime as it ships, with actions that do nothing and a log that goes nowhere. */

#include "daemon/serviceImpl.h"
#include "daemon/servicePrivilege.h"

namespace {

bool Nothing()
{
   return true;
}

} // namespace

int main(int argc, char **argv)
{
   ServiceImpl_PrivLower();
   return ServiceImpl_Daemon(argc, argv, 2, "/dev/null", Nothing, Nothing);
}
