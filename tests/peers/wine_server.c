/* A tracking service on Windows' own remote-procedure runtime: one mapping, (1, 2, 3), whose angles
 * are 0.25, -0.5 and 0.75. Listens on port 5437 of all addresses until it is killed.
 */
#include <stdio.h>
#include <stdlib.h>

#include <track.h> /* made by widl from track.idl */

static boolean IsOurs(Key key) { return key.device == 1 && key.bin == 2 && key.slot == 3; }

boolean GetMapping(Key key, long* engine, long* sensor) {
  *engine = 7;
  *sensor = 4;
  return IsOurs(key);
}

boolean GetAttribute(long engine, long id, long* value) {
  *value = 3;
  return engine == 7 && id == 5;
}

boolean GetFloats(Key key, long filter, long id, long count, float* values) {
  static const float angles[3] = {0.25F, -0.5F, 0.75F};
  for (long i = 0; i < count; ++i) values[i] = angles[i % 3];
  return IsOurs(key) && filter == -1 && id == 2 && count == 3;
}

boolean P0(void) { return 0; }
boolean P1(void) { return 0; }
boolean P2(void) { return 0; }
boolean P3(void) { return 0; }
boolean P4(void) { return 0; }
boolean P5(void) { return 0; }
boolean P6(void) { return 0; }
boolean P7(void) { return 0; }
boolean P8(void) { return 0; }
boolean P9(void) { return 0; }
boolean P10(void) { return 0; }
boolean P11(void) { return 0; }
boolean P12(void) { return 0; }
boolean P13(void) { return 0; }
boolean P15(void) { return 0; }
boolean P16(void) { return 0; }
boolean P17(void) { return 0; }
boolean P18(void) { return 0; }
boolean P19(void) { return 0; }
boolean P21(void) { return 0; }
boolean P22(void) { return 0; }
boolean P23(void) { return 0; }
boolean P24(void) { return 0; }
boolean P25(void) { return 0; }
boolean P26(void) { return 0; }
boolean P27(void) { return 0; }
boolean P28(void) { return 0; }
boolean P29(void) { return 0; }
boolean P30(void) { return 0; }
boolean P31(void) { return 0; }
boolean P32(void) { return 0; }
boolean P33(void) { return 0; }
boolean P34(void) { return 0; }
boolean P35(void) { return 0; }
boolean P36(void) { return 0; }
boolean P38(void) { return 0; }
boolean P39(void) { return 0; }
boolean P40(void) { return 0; }

int main(void) {
  RPC_STATUS status =
      RpcServerUseProtseqEpA((unsigned char*)"ncacn_ip_tcp", 16, (unsigned char*)"5437", NULL);
  if (status == RPC_S_OK) status = RpcServerRegisterIf(track_v1_1_s_ifspec, NULL, NULL);
  if (status != RPC_S_OK) return 1;
  puts("ready");
  fflush(stdout);
  return RpcServerListen(1, 16, FALSE) == RPC_S_OK ? 0 : 1;
}

void* __RPC_USER MIDL_user_allocate(SIZE_T size) { return malloc(size); }
void __RPC_USER MIDL_user_free(void* memory) { free(memory); }
