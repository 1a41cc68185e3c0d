/* Every public header compiles as strict C11, and a C program links libvsk.so alone. */
#include <stdio.h>
#include <string.h>

#include "vsk/vsk.h"

int main(void) {
  if (strcmp(vsk_get_err_msg(VSK_ERR_ISSU), "ISSU in progress") != 0) {
    fprintf(stderr, "message table through the C ABI is wrong\n");
    return 1;
  }
  if (get_vsk_err(VSK_ERR_NOT_FOUND) != VSK_ERR_NOT_FOUND) {
    fprintf(stderr, "status translation through the C ABI is wrong\n");
    return 1;
  }
  vsk_db_txn_t txn = {0, 0, 0};
  (void)txn;
  printf("c abi ok\n");
  return 0;
}
