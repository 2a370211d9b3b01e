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

/* The procedures that no client of ours calls. */
#define LIKE_P0 __attribute__((alias("P0")))
boolean P0(void) { return 0; }
boolean P1(void) LIKE_P0, P2(void) LIKE_P0, P3(void) LIKE_P0, P4(void) LIKE_P0, P5(void) LIKE_P0,
    P6(void) LIKE_P0, P7(void) LIKE_P0, P8(void) LIKE_P0, P9(void) LIKE_P0, P10(void) LIKE_P0,
    P11(void) LIKE_P0, P12(void) LIKE_P0, P13(void) LIKE_P0, P15(void) LIKE_P0, P16(void) LIKE_P0,
    P17(void) LIKE_P0, P18(void) LIKE_P0, P19(void) LIKE_P0, P21(void) LIKE_P0, P22(void) LIKE_P0,
    P23(void) LIKE_P0, P24(void) LIKE_P0, P25(void) LIKE_P0, P26(void) LIKE_P0, P27(void) LIKE_P0,
    P28(void) LIKE_P0, P29(void) LIKE_P0, P30(void) LIKE_P0, P31(void) LIKE_P0, P32(void) LIKE_P0,
    P33(void) LIKE_P0, P34(void) LIKE_P0, P35(void) LIKE_P0, P36(void) LIKE_P0, P38(void) LIKE_P0,
    P39(void) LIKE_P0, P40(void) LIKE_P0;

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
