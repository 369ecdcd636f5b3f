#include "daemon/tesselServices.h"

#include "base/owned.h"
#include "daemon/servicePrivilege.h"
#include "lib/file/file.h"
#include "lib/misc/host/hostinfo.h"
#include "lib/string/str.h"
#include "location/location.h"
#include "platform/kernelControl.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

const char *TesselServices_GetSupportDir()
{
   return "/Library/Application Support/Kestra/Kestra Tessel";
}

namespace {

constexpr char SERVICES_DIR[] = "/Services";

/* The path that a location key names inside the service copy, which has the layout of the product bundle. Null
   for an unknown key. */
Owned<char> TesselServicesPath(const char *key)
{
   const char *relative = Location_GetRelative(key);
   if (relative == nullptr) {
      return nullptr;
   }
   return Owned<char>(
       Str_Asprintf(nullptr, "%s%s%s", TesselServices_GetSupportDir(), SERVICES_DIR, relative));
}

int TesselServicesRunHelper(char *helper, char *script, const char *action)
{
   char *const argv[] = {helper, script, const_cast<char *>(action), nullptr};
   const PrivilegeBracket raised;
   return Hostinfo_Execute(helper, argv, true, nullptr, 0);
}

/* The script's failure deliberately does not fail the action: only the log shows it. */
bool TesselServicesCommon(const char *action)
{
   static constexpr char tag[] = "TesselServicesCommon";
   const Owned<char> helper = TesselServicesPath("idFile");
   const Owned<char> script = TesselServicesPath("serviceScriptFile");

   if (helper == nullptr || script == nullptr) {
      Warning("%s: Missing components.\n", tag);
      return false;
   }
   const int status = TesselServicesRunHelper(helper.get(), script.get(), action);
   if (status != 0) {
      Warning("%s: exit status %d.\n", tag, status);
   }
   return true;
}

bool TesselServicesConnectKext(int control, const KernelControlInfo &info)
{
   const PrivilegeBracket raised;
   return KernelControl_Connect(control, &info);
}

/* Reports the step that just failed; errno says why. */
void TesselServicesKextFailure(const char *step)
{
   Warning("%s: %s failed: %s\n", "TesselServicesWaitForKext", step, strerror(errno));
}

/* Waits until the extension answers, or closes the connection, at the end of its teardown. What it answers does
   not matter. */
void TesselServicesWaitForKext(const char *name)
{
   KernelControlInfo info = {.id = 1, .name = {}};
   char answer;

   Log("Waiting for %s kext...\n", name);
   const OwnedDescriptor control(KernelControl_Open());
   if (control.get() == -1) {
      TesselServicesKextFailure("socket");
      return;
   }
   Str_Snprintf(info.name, sizeof info.name, "com.kestra.kext.%s.teardown", name);
   if (!KernelControl_Lookup(control.get(), &info)) {
      TesselServicesKextFailure("CTLIOCGINFO");
      return;
   }
   if (!TesselServicesConnectKext(control.get(), info)) {
      TesselServicesKextFailure("connect");
      return;
   }
   if (read(control.get(), &answer, 1) == -1) {
      TesselServicesKextFailure("read");
   }
   Log("Kext %s is ready.\n", name);
}

bool TesselServicesDeleteCopy()
{
   const Owned<char> copy(Str_Asprintf(nullptr, "%s%s", TesselServices_GetSupportDir(), SERVICES_DIR));
   const PrivilegeBracket raised;
   return File_DeleteDirectoryTree(copy.get());
}

} // namespace

bool TesselServices_Start()
{
   return TesselServicesCommon("--start");
}

bool TesselServices_Stop()
{
   if (!TesselServicesCommon("--stopdaemons")) {
      return false;
   }
   TesselServicesWaitForKext("hvcore");
   TesselServicesWaitForKext("hvlink");
   const bool stopped = TesselServicesCommon("--stopkexts");
   const bool deleted = TesselServicesDeleteCopy();
   return deleted && stopped;
}
