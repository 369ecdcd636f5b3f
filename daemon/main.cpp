#include "daemon/serviceImpl.h"
#include "daemon/servicePrivilege.h"
#include "daemon/tesselServices.h"
#include "location/location.h"

int main(int argc, char **argv)
{
   ServiceImpl_PrivLower();
   Location_Init("tessel-daemon");
   return ServiceImpl_Daemon(argc, argv, 2, "/Library/Logs/Kestra Tessel Services.log", TesselServices_Start,
                             TesselServices_Stop);
}
