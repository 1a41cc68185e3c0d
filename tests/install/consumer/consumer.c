/* A daemon of someone else's, built against the installed library: it registers with
 * orvd in poll mode, counts one client session, reads the counters back and leaves.
 * Prints the count; exits non-zero at the first step that fails. */
#include <stdio.h>
#include <vsk/vsk.h>

int main(void) {
  orvd_ctx_t *ctx = orvd_init_handle();
  if (ctx == NULL || orvd_set_reg_type_poll(ctx) != 0) return 2;
  vsk_status_t rc = orvd_register(ctx);
  if (rc != VSK_OK) {
    fprintf(stderr, "orvd_register: %d (%s)\n", rc, vsk_get_err_msg(rc));
    return 3;
  }
  if (vsk_db_check() != VSK_OK) return 4;
  if (vsk_summary_counter_increment_total(NULL) != 0) return 5;
  uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS];
  if (vsk_get_summary_counters(counters) != 0) return 6;
  printf("client sessions counted: %u\n", (unsigned)counters[VSK_SUMMARY_COUNTER_TOTAL]);
  return orvd_unregister(&ctx) == VSK_OK ? 0 : 7;
}
