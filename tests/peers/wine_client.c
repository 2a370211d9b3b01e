/* Calls a tracking service through Windows' own remote-procedure runtime.
 *
 *   wine_client HOST DEVICE     prints what each procedure answers; exit code 0 when all did
 */
#include <stdio.h>
#include <stdlib.h>

#include <track.h> /* made by widl from track.idl */

static int Bind(const char* host) {
  unsigned char* text = NULL;
  if (RpcStringBindingComposeA(NULL, (unsigned char*)"ncacn_ip_tcp", (unsigned char*)host,
                               (unsigned char*)"5437", NULL, &text) != RPC_S_OK) {
    return 0;
  }
  return RpcBindingFromStringBindingA(text, &service) == RPC_S_OK;
}

static int CallAll(Key key) {
  long engine = 0, sensor = 0, units = 0;
  float angles[3] = {0, 0, 0};
  const boolean found = GetMapping(key, &engine, &sensor);
  const boolean known = GetAttribute(engine, 5, &units);
  const boolean fetched = GetFloats(key, -1, 2, 3, angles);
  printf("found %d sensor %ld units %ld angles %d %g\n", found, sensor, units, fetched, angles[0]);
  key.slot = 31;
  return found && known && fetched && !GetMapping(key, &engine, &sensor);
}

int main(int count, char** arguments) {
  const Key key = {count > 2 ? atol(arguments[2]) : 0, 0, 0};
  int done = 0;
  if (count < 3 || !Bind(arguments[1])) return 2;
  /* An exception ends the program, and so fails the check. */
  done = 1;
  for (int i = 0; i < 100 && done; ++i) done = CallAll(key);
  return done ? 0 : 1;
}

void* __RPC_USER MIDL_user_allocate(SIZE_T size) { return malloc(size); }
void __RPC_USER MIDL_user_free(void* memory) { free(memory); }
