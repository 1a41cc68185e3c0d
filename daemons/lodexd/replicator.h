// lodexd's core: the store's environment, the outbound queue, the link to the other
// engine's lodexd, the standby's position and the acknowledgement server, on one loop.
//
// Master and standby run the same code; the role is that of lodexd's registration with
// orvd, taken anew each time it registers (so it follows a switchover):
//
//   queue (every local process's lodex_send) --pump--> link --> peer lodexd
//   peer lodexd --> link --> rep_process_message on this engine's environment
//
// On the standby, after each batch it applies, lodexd sends its position (generation,
// next expected LSN, start-up sync done) back; on the master that position drives the
// acknowledgements (ack_server.h) and the nudge: a standby that stays behind the master's
// end of log without moving for kNudgeAfter gets the master's last record again
// (rep_flush), which makes Berkeley DB on the standby ask for whatever it lacks (log
// catch-up, or a full internal init for an empty standby). The same happens at once
// whenever a link comes up.
//
// Nothing here can hold up a commit: the queue is filled by the committing processes
// without waiting for lodexd. What lodexd cannot deliver is counted: messages drained with
// no link (undelivered), messages received with no environment open (unapplied), and the
// queue's own drops; all are in the status file (platform/lodex_status.h).
//
// Invariants:
//  1. The pump never sends while the link's backlog is over kMaxBacklog: the queue absorbs
//     a slow peer (and drops, counted, when full) instead of lodexd's memory.
//  2. The standby's position is forgotten when the link goes down, so no acknowledgement
//     is ever based on a position reported over a previous link or in another generation.
//  3. The environment handle is used only between a successful registration and the
//     library's news (callback with null) that the store went down.
#pragma once

#include <db.h>
#include <event2/event.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "ack_server.h"
#include "peer_link.h"
#include "platform/lodex_status.h"
#include "vsk/orvd.h"

namespace lodexd {

using Clock = std::chrono::steady_clock;

class Replicator : public PeerLink::Listener {
 public:
  Replicator(evContext ev, Endpoint listen, Endpoint peer);
  ~Replicator() override;
  Replicator(const Replicator&) = delete;
  Replicator& operator=(const Replicator&) = delete;

  // Attaches the queue, listens, dials, registers. False if it cannot start at all.
  bool Start();
  // Leaves the store and drops the link.
  void Stop();

  void OnLinkUp() override;
  void OnLinkDown() override;
  void OnFrame(const FrameHeader& h, const uint8_t* control, const uint8_t* rec) override;
  void OnFramesDone() override;

 private:
  struct StandbyPosition {
    bool known = false;  // reported over the current link
    bool ready = false;
    uint32_t gen = 0;
    DB_LSN next{};
  };

  static void OnPump(evutil_socket_t, short, void* arg);
  static void OnTick(evutil_socket_t, short, void* arg);
  static void OnEnvironment(DB_ENV* env);

  void Register();
  void LeaveStore();
  void Pump();
  void Apply(const FrameHeader& h, const uint8_t* control, const uint8_t* rec);
  void OnProgress(const uint8_t* control, uint32_t size);
  void ReportPosition(bool force);
  void RefreshOwnPosition();
  void Nudge(const char* why);
  void UpdateAckState();
  void Tick();
  void PublishStatus();
  bool LogEnd(DB_LSN* out) const;

  evContext ev_;
  event_base* base_;
  PeerLink link_;
  AckServer ack_;
  event* pump_ev_ = nullptr;
  event* tick_ev_ = nullptr;
  int pump_idle_us_ = 0;
  std::vector<uint8_t> buffer_;

  orvd_ctx_t* handle_ = nullptr;
  DB_ENV* env_ = nullptr;
  bool master_ = false;
  bool store_lost_ = false;
  Clock::time_point next_register_{};
  int last_register_status_ = 1;

  StandbyPosition standby_;             // master: as reported by the standby
  Clock::time_point standby_moved_at_{};
  Clock::time_point last_nudge_{};
  StandbyPosition reported_;            // standby: what was last sent
  Clock::time_point reported_at_{};
  bool applied_since_report_ = false;

  vsk::platform::LodexStatus status_;
  std::string published_;
  Clock::time_point published_at_{};
  Clock::time_point last_error_log_{};
};

}  // namespace lodexd
