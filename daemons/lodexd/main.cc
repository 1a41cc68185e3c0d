// lodexd: the replication daemon. Ships the store's replication traffic between the two
// routing engines and answers the acknowledgement channel (see replicator.h).
//
// Options:
//   --listen HOST:PORT  accept the other engine's lodexd here
//   --peer HOST:PORT    dial the other engine's lodexd there
//   --foreground        stay attached to the terminal
//   --stderr            log to stderr instead of syslog
// At least one of --listen and --peer is needed; both engines usually give both. SIGTERM
// and SIGINT end it cleanly.
#include <event2/event.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <string>

#include "log.h"
#include "platform/paths.h"
#include "replicator.h"
#include "vsk/evlib.h"

namespace lodexd {
namespace {

evContext g_ev{};

void OnSignal(evutil_socket_t sig, short, void*) {
  Log("signal %d, shutting down", static_cast<int>(sig));
  evBreak(g_ev);
}

}  // namespace
}  // namespace lodexd

int main(int argc, char** argv) {
  using namespace lodexd;
  CLI::App app{"lodexd: replication between the routing engines"};
  std::string listen_text, peer_text;
  bool foreground = false, to_stderr = false;
  app.add_option("--listen", listen_text, "HOST:PORT to accept the peer on");
  app.add_option("--peer", peer_text, "HOST:PORT of the peer");
  app.add_flag("--foreground", foreground, "do not detach");
  app.add_flag("--stderr", to_stderr, "log to stderr");
  CLI11_PARSE(app, argc, argv);

  Endpoint listen, peer;
  if ((!listen_text.empty() && !ParseEndpoint(listen_text, &listen)) ||
      (!peer_text.empty() && !ParseEndpoint(peer_text, &peer)) ||
      (!listen.valid() && !peer.valid())) {
    std::fprintf(stderr, "lodexd: give --listen and/or --peer as HOST:PORT\n");
    return 2;
  }
  SetLogToStderr(to_stderr);
  if (!foreground && daemon(0, 0) != 0) {
    Log("cannot detach: %s", std::strerror(errno));
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);
  std::string failed;
  if (!vsk::platform::MakeSystemDirs(&failed)) {
    Log("cannot create %s: %s", failed.c_str(), std::strerror(errno));
    return 1;
  }
  if (evCreate(&g_ev) != 0) {
    Log("cannot create the event loop");
    return 1;
  }
  event_base* base = evGetBase(g_ev);
  event* term = evsignal_new(base, SIGTERM, OnSignal, nullptr);
  event* intr = evsignal_new(base, SIGINT, OnSignal, nullptr);
  evsignal_add(term, nullptr);
  evsignal_add(intr, nullptr);
  int exit_code = 0;
  {
    Replicator replicator(g_ev, listen, peer);
    if (!replicator.Start()) {
      exit_code = 1;
    } else {
      Log("running");
      evMainLoop(g_ev);
    }
    replicator.Stop();
  }
  event_free(term);
  event_free(intr);
  evDestroy(g_ev);
  Log("stopped");
  return exit_code;
}
