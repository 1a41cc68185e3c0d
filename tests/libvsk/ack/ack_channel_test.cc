// The acknowledgement channel against a scripted replication service: the test plays
// lodexd's side of the socket by hand, on the same loop as the channel, so every message
// that crosses is seen byte for byte. Each case runs in a child: the channel registers once
// per process.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/lodex_ack.h"
#include "platform/paths.h"
#include "support/harness.h"
#include "vsk/ack.h"
#include "vsk/evlib.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;

struct Answer {
  uint32_t c1, c2;
  int status;
};
std::vector<Answer> g_answers;
void OnAnswer(uint32_t c1, uint32_t c2, int status) { g_answers.push_back({c1, c2, status}); }

// lodexd's end of the socket, served from the channel's own loop between dispatches.
class ScriptedService {
 public:
  ScriptedService() {
    std::string path = platform::RootedPath(platform::kLodexAckSocket);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    unlink(path.c_str());
    bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(listen_fd_, 4);
  }
  ~ScriptedService() {
    Cut();
    close(listen_fd_);
  }
  // Takes a waiting connection and tells it the channel is up.
  bool Accept() {
    fd_ = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK);
    if (fd_ < 0) return false;
    return State(true);
  }
  bool State(bool up) {
    lodex_ack_msg_t m{LODEX_ACK_STATE, up ? 1u : 0u, {}};
    return send(fd_, &m, 8, 0) == 8;
  }
  bool Answer(const std::vector<uint32_t>& ids) {
    lodex_ack_msg_t m{LODEX_ACK_ANSWER, static_cast<uint32_t>(ids.size()), {}};
    std::copy(ids.begin(), ids.end(), m.ids);
    size_t n = platform::LodexAckFrameSize(m.count);
    return send(fd_, &m, n, 0) == static_cast<ssize_t>(n);
  }
  // Request frames that have arrived, parsed; raw bytes kept in `bytes`.
  std::vector<std::vector<uint32_t>> Requests() {
    uint8_t buf[8192];
    ssize_t n;
    while ((n = recv(fd_, buf, sizeof buf, 0)) > 0) bytes.insert(bytes.end(), buf, buf + n);
    std::vector<std::vector<uint32_t>> out;
    size_t used = 0;
    lodex_ack_msg_t m;
    long k;
    while ((k = platform::ParseLodexAckFrame(bytes.data() + used, bytes.size() - used, &m)) > 0) {
      if (m.kind != LODEX_ACK_REQUEST) break;
      out.emplace_back(m.ids, m.ids + m.count);
      used += static_cast<size_t>(k);
    }
    parsed += used;
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<long>(used));
    return out;
  }
  void Cut() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  std::vector<uint8_t> bytes;
  size_t parsed = 0;

 private:
  int listen_fd_ = -1;
  int fd_ = -1;
};

// Runs the loop for `ms` milliseconds.
void Spin(evContext ev, int ms) {
  auto end = Clock::now() + std::chrono::milliseconds(ms);
  while (Clock::now() < end) evDispatchOnce(ev, 5);
}

class AckChannelTest : public VskTest {};

TEST_F(AckChannelTest, RegistrationRulesAndRequestsWithoutAConnection) {
  ChildResult r = RunInChild([this] {
    evContext ev{};
    evCreate(&ev);
    vsk_ack_app_context_t app{ev};
    CHILD_CHECK(vsk_ack_request(1, 2) == VSK_ACK_FAILURE);
    CHILD_CHECK(traces().Contains("vsk ack not registered"));
    CHILD_CHECK(vsk_ack_register(nullptr, nullptr, OnAnswer) == VSK_ACK_FAILURE);
    CHILD_CHECK(vsk_ack_register(&app, nullptr, nullptr) == VSK_ACK_FAILURE);
    CHILD_CHECK(traces().Count("Invalid call to vsk_ack_register()") == 2);
    CHILD_CHECK(vsk_ack_register(&app, nullptr, OnAnswer) == VSK_ACK_SUCCESS);
    CHILD_CHECK(traces().Contains("Created timer Context"));
    CHILD_CHECK(traces().Contains("Created defer timer"));
    CHILD_CHECK(vsk_ack_register(&app, nullptr, OnAnswer) == VSK_ACK_FAILURE);
    CHILD_CHECK(traces().Contains("Application already registered"));
    // No service listens: refused with 0, and no callback ever comes for it.
    CHILD_CHECK(vsk_ack_request(7, 8) == VSK_ACK_NO_CONNECTION);
    CHILD_CHECK(traces().Contains("No connection to server"));
    Spin(ev, 300);
    CHILD_CHECK(g_answers.empty());
    // The first registration is still in force: once the service is up, requests go.
    ScriptedService service;
    Spin(ev, 1200);  // the channel retries its connection every second
    CHILD_CHECK(service.Accept());
    Spin(ev, 50);
    CHILD_CHECK(traces().Contains("** state change to UP **"));
    CHILD_CHECK(vsk_ack_request(3, 4) == VSK_ACK_ACCEPTED);
    CHILD_CHECK(traces().Contains("Created ack request 0"));
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

// 151 requests in one period go out as two messages of 150 and 1 ids; answers may come in
// any grouping, an unknown id is traced and skipped, and each request is answered once.
TEST_F(AckChannelTest, OnePeriodOf151RequestsGivesTwoMessagesAndEachAnswerComesOnce) {
  ChildResult r = RunInChild([this] {
    ScriptedService service;
    evContext ev{};
    evCreate(&ev);
    vsk_ack_app_context_t app{ev};
    CHILD_CHECK(vsk_ack_register(&app, nullptr, OnAnswer) == VSK_ACK_SUCCESS);
    CHILD_CHECK(service.Accept());
    Spin(ev, 50);
    for (uint32_t i = 0; i < 151; ++i) CHILD_CHECK(vsk_ack_request(i, i * 10) == VSK_ACK_ACCEPTED);
    Spin(ev, 400);
    CHILD_CHECK(traces().Count("** Defered Event **") == 1);
    std::vector<std::vector<uint32_t>> reqs = service.Requests();
    CHILD_CHECK(reqs.size() == 2);
    CHILD_CHECK(reqs[0].size() == 150 && reqs[1].size() == 1);
    CHILD_CHECK(reqs[0].front() == 0 && reqs[0].back() == 149 && reqs[1][0] == 150);
    CHILD_CHECK(service.parsed == 8 + 4 * 150 + 8 + 4);  // the frames byte for byte
    CHILD_CHECK(traces().Contains("Request 150 acks") && traces().Contains("Request sent 1 acks"));
    // Answers: the last one first, with an id nobody asked for in the middle, then the rest
    // in two messages, one of which repeats an id already answered.
    CHILD_CHECK(service.Answer({150, 9999, 0}));
    std::vector<uint32_t> rest(reqs[0].begin() + 1, reqs[0].end());
    CHILD_CHECK(service.Answer(std::vector<uint32_t>(rest.begin(), rest.begin() + 100)));
    CHILD_CHECK(service.Answer(std::vector<uint32_t>(rest.begin() + 99, rest.end())));
    Spin(ev, 100);
    CHILD_CHECK(traces().Contains("Failed to find request 9999"));
    CHILD_CHECK(traces().Contains("Failed to find request 100"));  // the repeat
    CHILD_CHECK(traces().Contains("Response, num = 3"));
    CHILD_CHECK(g_answers.size() == 151);
    std::map<uint32_t, int> seen;
    for (const Answer& a : g_answers) {
      CHILD_CHECK(a.status == VSK_ACK_POSITIVE && a.c2 == a.c1 * 10);
      ++seen[a.c1];
    }
    CHILD_CHECK(seen.size() == 151);
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

// A cut answers the sent requests negatively at once and the pending ones at the next
// expiry of the defer timer; requests after the cut are refused without a callback.
TEST_F(AckChannelTest, ACutAnswersSentRequestsAtOnceAndPendingOnesAtTheNextExpiry) {
  ChildResult r = RunInChild([this] {
    ScriptedService service;
    evContext ev{};
    evCreate(&ev);
    vsk_ack_app_context_t app{ev};
    CHILD_CHECK(vsk_ack_register(&app, nullptr, OnAnswer) == VSK_ACK_SUCCESS);
    CHILD_CHECK(service.Accept());
    Spin(ev, 50);
    for (uint32_t i = 0; i < 5; ++i) CHILD_CHECK(vsk_ack_request(i, 0) == VSK_ACK_ACCEPTED);
    Spin(ev, 300);  // sent, not answered
    CHILD_CHECK(service.Requests().size() == 1);
    for (uint32_t i = 5; i < 8; ++i) CHILD_CHECK(vsk_ack_request(i, 0) == VSK_ACK_ACCEPTED);
    // The service says it can no longer acknowledge (its standby went away).
    CHILD_CHECK(service.State(false));
    Spin(ev, 20);  // well inside the defer period that holds the three pending ones
    CHILD_CHECK(traces().Contains("** state change to DOWN **"));
    CHILD_CHECK(traces().Contains("** Lost connection **"));
    CHILD_CHECK(g_answers.size() == 5);
    for (const Answer& a : g_answers) CHILD_CHECK(a.status == VSK_ACK_NEGATIVE && a.c1 < 5);
    Spin(ev, 300);
    CHILD_CHECK(g_answers.size() == 8);
    for (uint32_t i = 5; i < 8; ++i) {
      CHILD_CHECK(g_answers[i].c1 == i && g_answers[i].status == VSK_ACK_NEGATIVE);
    }
    CHILD_CHECK(traces().Contains("Connection down for 5"));
    CHILD_CHECK(traces().Contains("NACK Response to request 7"));
    CHILD_CHECK(vsk_ack_request(9, 9) == VSK_ACK_NO_CONNECTION);
    // Back up, then the connection itself breaks with a request sent: one negative answer.
    CHILD_CHECK(service.State(true));
    Spin(ev, 20);
    CHILD_CHECK(vsk_ack_request(10, 0) == VSK_ACK_ACCEPTED);
    Spin(ev, 300);
    service.Cut();
    Spin(ev, 50);
    CHILD_CHECK(g_answers.size() == 9 && g_answers[8].c1 == 10 &&
                g_answers[8].status == VSK_ACK_NEGATIVE);
    Spin(ev, 300);
    CHILD_CHECK(g_answers.size() == 9);  // and never a second one
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
