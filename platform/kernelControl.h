#ifndef TESSEL_PLATFORM_KERNELCONTROL_H
#define TESSEL_PLATFORM_KERNELCONTROL_H

#include <cstdint>

/* Connections to controls that kernel extensions publish under a name. */

struct KernelControlInfo {
   uint32_t id;
   char name[96]; /* Ended by NUL. */
};

static_assert(sizeof(KernelControlInfo) == 100, "the kernel fixes this layout");

/* A descriptor for one connection to a control, closed on exec, or -1 with errno set. */
[[nodiscard]] int KernelControl_Open();

/* Finds the control named in *info and replaces info->id by its identifier. False with errno set: ENOENT if no
   such control is published. */
[[nodiscard]] bool KernelControl_Lookup(int control, KernelControlInfo *info);

/* Connects to the control that KernelControl_Lookup found. Afterwards the descriptor is read as any other. False
   with errno set. */
[[nodiscard]] bool KernelControl_Connect(int control, const KernelControlInfo *info);

#endif
