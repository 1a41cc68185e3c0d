// The acknowledgement channel end to end: a daemon of the master asks lodexd, which answers
// only once the standby has applied what the master had logged when the request came; a
// standby that goes away gives negative answers at once.
#include <signal.h>

#include <chrono>
#include <thread>

#include "support/repl_pair.h"
#include "vsk/ack.h"
#include "vsk/evlib.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;

struct Answer {
  uint32_t c1;
  int status;
};
std::vector<Answer> g_answers;
void OnAnswer(uint32_t c1, uint32_t, int status) { g_answers.push_back({c1, status}); }

// Runs the loop until `done` or `limit`; whether `done` held.
template <typename Pred>
bool SpinUntil(evContext ev, Pred done, std::chrono::milliseconds limit) {
  auto end = Clock::now() + limit;
  for (;;) {
    if (done()) return true;  // evaluated once per round: `done` may have effects
    if (Clock::now() > end) return false;
    evDispatchOnce(ev, 5);
  }
}

class AckEndToEndTest : public ReplPairTest {};

TEST_F(AckEndToEndTest, AnswersComeOnlyOnceTheStandbyHasTheDataAndACutAnswersNegatively) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  ASSERT_TRUE(a().WaitInSync());
  std::string root = a().root();
  Child client;
  client.Start([&](Child::Channel& ch) {
    setenv("VSK_ROOT", root.c_str(), 1);
    evContext ev{};
    evCreate(&ev);
    vsk_ack_app_context_t app{ev};
    CHILD_CHECK(vsk_ack_register(&app, nullptr, OnAnswer) == VSK_ACK_SUCCESS);
    // Up once lodexd says its standby is in step: a first request is answered.
    CHILD_CHECK(SpinUntil(ev, [] { return vsk_ack_request(0, 0) == VSK_ACK_ACCEPTED; },
                          std::chrono::seconds(20)));
    CHILD_CHECK(SpinUntil(ev, [] { return g_answers.size() == 1; }, std::chrono::seconds(20)));
    CHILD_CHECK(g_answers[0].status == VSK_ACK_POSITIVE);

    // Step 1: the parent froze the standby's lodexd and wrote session 500 on the master.
    ch.Ready();
    ch.WaitGo();
    CHILD_CHECK(vsk_ack_request(500, 0) == VSK_ACK_ACCEPTED);
    // The standby cannot have the session: no answer may come however long we wait.
    SpinUntil(ev, [] { return false; }, std::chrono::milliseconds(1500));
    CHILD_CHECK(g_answers.size() == 1);
    ch.Ready();  // the parent lets the standby go on
    CHILD_CHECK(SpinUntil(ev, [] { return g_answers.size() == 2; }, std::chrono::seconds(20)));
    CHILD_CHECK(g_answers[1].c1 == 500 && g_answers[1].status == VSK_ACK_POSITIVE);
    ch.Ready();  // the parent checks the standby now
    ch.WaitGo();

    // Step 2: the standby is frozen again and session 600 written; requests are sent and
    // cannot be answered; then the standby's lodexd dies.
    for (uint32_t i = 600; i < 620; ++i) CHILD_CHECK(vsk_ack_request(i, 0) == VSK_ACK_ACCEPTED);
    SpinUntil(ev, [] { return false; }, std::chrono::milliseconds(400));
    CHILD_CHECK(g_answers.size() == 2);
    ch.Ready();
    CHILD_CHECK(SpinUntil(ev, [] { return g_answers.size() == 22; }, std::chrono::seconds(20)));
    for (size_t i = 2; i < 22; ++i) {
      CHILD_CHECK(g_answers[i].c1 == 598 + i && g_answers[i].status == VSK_ACK_NEGATIVE);
    }
    SpinUntil(ev, [] { return false; }, std::chrono::milliseconds(500));
    CHILD_CHECK(g_answers.size() == 22);  // exactly one answer each
    CHILD_CHECK(vsk_ack_request(700, 0) == VSK_ACK_NO_CONNECTION);
    return 0;
  });
  ASSERT_TRUE(client.WaitReady());
  kill(b().lodexd().pid(), SIGSTOP);
  ChildResult w = AsClientOf(a(), [] { return PutSessions(500, 1) == 0 ? 0 : 1; });
  ASSERT_TRUE(w.Ok()) << w;
  client.Go();
  ASSERT_TRUE(client.WaitReady());
  kill(b().lodexd().pid(), SIGCONT);
  ASSERT_TRUE(client.WaitReady());
  // The answer has come: the standby has the session.
  ChildResult r = AsClientOf(b(), [] { return CountSessions({500}) == 1 ? 0 : 1; });
  EXPECT_TRUE(r.Ok()) << r;
  kill(b().lodexd().pid(), SIGSTOP);
  w = AsClientOf(a(), [] { return PutSessions(600, 1) == 0 ? 0 : 1; });
  ASSERT_TRUE(w.Ok()) << w;
  client.Go();
  ASSERT_TRUE(client.WaitReady());
  b().StopLodexd(SIGKILL);
  ChildResult c = client.Wait();
  EXPECT_TRUE(c.Ok()) << c;
  EXPECT_GT(a().Status().ack_answered, 0u);
}

}  // namespace
}  // namespace vsk::test
