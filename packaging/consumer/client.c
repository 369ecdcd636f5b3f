#include <stdio.h>
#include <tesselclient.h>

int main(void)
{
   char text[TESSEL_TEXT_SIZE];
   int hold;
   const TesselResult result = TesselClient_Register("/nowhere", TESSEL_NO_LIMIT, &hold);
   TesselClient_Describe(&result, text, sizeof text);
   puts(text);
   return result.outcome == TESSEL_NO_SOCKET ? 0 : 1;
}
