// The daemon-link handle, one per process.
//
// Allocated and cleared by orvd_init_handle and passed to every call of the link. The
// store keeps a pointer to it (the first argument of every trace) and calls its
// environment-change callback when the store goes down. Fields are in the handle's
// documented order. Owned by the daemon's main context; nothing here is locked.
#pragma once

#include <cstdint>

#include "platform/evlib.h"
#include "platform/wtimer.h"
#include "vsk/orvd.h"

struct orvd_ctx {
  bool user_reg;        // orvd_register has finished; options are frozen
  bool reg_ack;         // a positive registration answer came on this connection
  bool is_orvd;         // this process is the infrastructure daemon
  int32_t fd;           // the socket, -1 when closed
  bool reg_type_poll;
  bool reg_type_event;
  bool reg_type_select;
  bool recovery_complete_sent;
  bool issu_enabled;
  uint32_t connect_timeout;  // milliseconds to wait for the registration answer
  evContext event_ctx;
  evFileID event_file_id;
  bool event_registered;
  wtimer_root_t* timer_root;
  wtimer_leaf_t* timer_leaf;
  wtimer_interval_t timer_interval;
  void* select_cookie;
  orvd_select_fn_t select_register;
  orvd_select_fn_t select_deregister;
  bool select_registered;
  void* issu_cookie;
  orvd_issu_idle_cbk_t issu_idle_cbk;
  orvd_issu_prepare_cbk_t issu_prepare_cbk;
  orvd_issu_done_cbk_t issu_prepare_done_cbk;
  orvd_issu_switchover_cbk_t issu_switchover_cbk;
  orvd_issu_done_cbk_t issu_switchover_done_cbk;
  orvd_issu_abort_cbk_t issu_abort_cbk;
  void* trace_cookie;
  orvd_trace_fn_t trace_fn;
  orvd_db_env_change_cbk_t db_env_change_cbk;
  vsk_issu_info_t issu_info;
  uint32_t platd_issu_state;
  uint8_t rx_buffer[16];
};

static_assert(sizeof(vsk_issu_info_t) == 137, "the ISSU block is 137 bytes on the wire");
