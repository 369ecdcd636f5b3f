#include "platform/kernelControl.h"

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/kern_control.h>
#include <sys/socket.h>
#if __has_include(<sys/sys_domain.h>)
#include <sys/sys_domain.h>
#endif

/* Not every set of Darwin headers has sys/sys_domain.h. */
#ifndef SYSPROTO_CONTROL
#define SYSPROTO_CONTROL 2
#endif
#ifndef AF_SYS_CONTROL
#define AF_SYS_CONTROL 2
#endif

/* The kernel fixes these. */
static_assert(PF_SYSTEM == 32 && AF_SYSTEM == 32 && SOCK_DGRAM == 2);
static_assert(SYSPROTO_CONTROL == 2 && AF_SYS_CONTROL == 2);
static_assert(sizeof(struct ctl_info) == 100 && sizeof(struct sockaddr_ctl) == 32);
static_assert(offsetof(struct ctl_info, ctl_id) == 0 && offsetof(struct ctl_info, ctl_name) == 4);
static_assert(offsetof(struct sockaddr_ctl, ss_sysaddr) == 2 && offsetof(struct sockaddr_ctl, sc_id) == 4 &&
              offsetof(struct sockaddr_ctl, sc_unit) == 8);
static_assert(CTLIOCGINFO == 0xC0644E03);
static_assert(sizeof(ctl_info::ctl_name) == sizeof(KernelControlInfo::name));

int KernelControl_Open()
{
   const int control = socket(PF_SYSTEM, SOCK_DGRAM, SYSPROTO_CONTROL);
   if (control != -1) {
      fcntl(control, F_SETFD, FD_CLOEXEC);
   }
   return control;
}

bool KernelControl_Lookup(int control, KernelControlInfo *info)
{
   struct ctl_info request = {};

   request.ctl_id = info->id;
   memcpy(request.ctl_name, info->name, sizeof request.ctl_name);
   if (ioctl(control, CTLIOCGINFO, &request) == -1) {
      return false;
   }
   info->id = request.ctl_id;
   return true;
}

bool KernelControl_Connect(int control, const KernelControlInfo *info)
{
   struct sockaddr_ctl address = {};

   address.sc_len = sizeof address;
   address.sc_family = AF_SYSTEM;
   address.ss_sysaddr = AF_SYS_CONTROL;
   address.sc_id = info->id;
   address.sc_unit = 0;
   return connect(control, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
}
