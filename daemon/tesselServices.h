#ifndef TESSEL_DAEMON_TESSELSERVICES_H
#define TESSEL_DAEMON_TESSELSERVICES_H

/* What the daemon starts for its first client and stops after its last: the product's host services, run by a
   service script out of a copy of the product's service files. */

/* The product's support directory; a constant. The service copy is the folder "Services" in it. */
const char *TesselServices_GetSupportDir();

/* Starts the services; blocks until the script has ended. The script's own failure is logged, and counts as
   success. False only if the script could not be named at all. */
[[nodiscard]] bool TesselServices_Start();

/* Stops the services, waits, without limit, for the kernel extensions' teardown, and deletes the service copy.
   False if the copy could not be deleted or the script could not be named; a failure of the script or a
   kernel extension is only logged. Must be called with privileges lowered; raises them where needed. */
[[nodiscard]] bool TesselServices_Stop();

#endif
