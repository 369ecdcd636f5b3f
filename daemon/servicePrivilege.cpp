#include "daemon/servicePrivilege.h"

#include "base/errno.h"
#include "lib/public/program.h"

#include <cerrno>
#include <sys/types.h>
#include <unistd.h>

namespace {

uid_t sSavedEffectiveUser = 0;

/* Brackets stand between a failing call and the report of its errno, which has to come through. */
void PrivilegeSetEffectiveUser(uid_t user, const char *routine)
{
   const KeptErrno kept;

   if (seteuid(user) == -1) {
      Warning("%s: seteuid errno %d.\n", routine, errno);
   }
}

} // namespace

void ServiceImpl_PrivLower()
{
   sSavedEffectiveUser = geteuid();
   PrivilegeSetEffectiveUser(getuid(), "ServiceImpl_PrivLower");
}

void ServiceImpl_PrivRaise()
{
   PrivilegeSetEffectiveUser(sSavedEffectiveUser, "ServiceImpl_PrivRaise");
}
