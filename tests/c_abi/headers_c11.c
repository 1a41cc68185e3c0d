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
  libstats_iflstats_full_t stats = {0};
  libstats_iflstats_full_set_version(&stats.stats[LS_CLEARED].ts);
  if (stats.stats[LS_CLEARED].ts != LIBSTATS_IFLSTATS_FULL_VERSION || sizeof(libstats_iflstats_value_t) != 200) {
    fprintf(stderr, "statistics records through the C ABI are wrong\n");
    return 1;
  }
  vsk_db_txn_t txn = {0, 0, 0};
  (void)txn;
  printf("c abi ok\n");
  return 0;
}
