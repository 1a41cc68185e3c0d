// vskctl serve-metrics: the metrics endpoint, GET /metrics in Prometheus' text format,
// served by libevent's HTTP server on one thread.
//
// No client can stall it: every socket is non-blocking and handled on the event loop, a
// connection that is idle, or sends or reads too slowly, is dropped after
// --client-timeout seconds, request headers are bounded and bodies refused, and a
// malformed request gets an error and its connection closed. Rendering reads shared
// memory and a copy of the interface table without any lock, and the Berkeley DB figures
// come from a collector thread (see metrics.h).
//
// Once listening it prints "vskctl: serving metrics on http://ADDR:PORT/metrics" on stdout
// (a port of 0 picks a free one, shown there) and tells systemd that it is ready.
// SIGTERM and SIGINT stop it.
#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <memory>

#include "ctl.h"
#include "exposition.h"
#include "metrics.h"

namespace vskctl {
namespace {

struct ServeOptions {
  std::string listen = "127.0.0.1:9489";
  int client_timeout = 10;
  double store_interval = 5.0;
};

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using BasePtr = std::unique_ptr<event_base, Deleter<event_base, event_base_free>>;
using HttpPtr = std::unique_ptr<evhttp, Deleter<evhttp, evhttp_free>>;
using EventPtr = std::unique_ptr<event, Deleter<event, event_free>>;

// "HOST:PORT" or "[V6]:PORT".
bool SplitListen(const std::string& listen, std::string* host, uint16_t* port) {
  size_t colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == listen.size()) return false;
  *host = listen.substr(0, colon);
  if (host->size() > 2 && host->front() == '[' && host->back() == ']') {
    *host = host->substr(1, host->size() - 2);
  }
  char* end = nullptr;
  unsigned long p = std::strtoul(listen.c_str() + colon + 1, &end, 10);
  if (*end != '\0' || p > 65535) return false;
  *port = static_cast<uint16_t>(p);
  return true;
}

std::string BoundAddress(evhttp_bound_socket* bound) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (getsockname(evhttp_bound_socket_get_fd(bound), reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
    return "?";
  }
  char text[INET6_ADDRSTRLEN] = "?";
  uint16_t port = 0;
  if (ss.ss_family == AF_INET) {
    auto* a = reinterpret_cast<sockaddr_in*>(&ss);
    inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
    port = ntohs(a->sin_port);
    return std::string(text) + ":" + std::to_string(port);
  }
  auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
  inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
  port = ntohs(a->sin6_port);
  return "[" + std::string(text) + "]:" + std::to_string(port);
}

void OnMetrics(evhttp_request* req, void* arg) {
  auto* source = static_cast<MetricsSource*>(arg);
  std::string body = source->Render();
  evkeyvalq* headers = evhttp_request_get_output_headers(req);
  evhttp_add_header(headers, "Content-Type", Exposition::kContentType);
  evhttp_add_header(headers, "Cache-Control", "no-store");
  evbuffer* out = evbuffer_new();
  if (out == nullptr) {
    evhttp_send_error(req, HTTP_INTERNAL, "out of memory");
    return;
  }
  evbuffer_add(out, body.data(), body.size());
  evhttp_send_reply(req, HTTP_OK, "OK", out);
  evbuffer_free(out);
}

void OnOther(evhttp_request* req, void*) {
  evhttp_send_error(req, HTTP_NOTFOUND, "only /metrics is served here");
}

void OnSignal(evutil_socket_t, short, void* arg) {
  sd_notify(0, "STOPPING=1");
  event_base_loopbreak(static_cast<event_base*>(arg));
}

int RunServeMetrics(const Globals&, const ServeOptions& options) {
  std::string host;
  uint16_t port = 0;
  if (!SplitListen(options.listen, &host, &port)) {
    std::fprintf(stderr, "vskctl: --listen wants HOST:PORT, not \"%s\"\n", options.listen.c_str());
    return kExitUsage;
  }
  signal(SIGPIPE, SIG_IGN);
  BasePtr base(event_base_new());
  HttpPtr http(base ? evhttp_new(base.get()) : nullptr);
  if (!http) return Failure("cannot set up the HTTP server");
  evhttp_set_timeout(http.get(), options.client_timeout);
  evhttp_set_max_headers_size(http.get(), 8192);
  evhttp_set_max_body_size(http.get(), 0);
  evhttp_set_allowed_methods(http.get(), EVHTTP_REQ_GET | EVHTTP_REQ_HEAD);

  auto store_period =
      std::chrono::milliseconds(static_cast<int64_t>(options.store_interval * 1000));
  MetricsSource source(store_period);
  evhttp_set_cb(http.get(), "/metrics", OnMetrics, &source);
  evhttp_set_gencb(http.get(), OnOther, nullptr);
  evhttp_bound_socket* bound = evhttp_bind_socket_with_handle(http.get(), host.c_str(), port);
  if (bound == nullptr) {
    return Failure("cannot listen on " + options.listen + ": " +
                   evutil_socket_error_to_string(EVUTIL_SOCKET_ERROR()));
  }
  EventPtr term(evsignal_new(base.get(), SIGTERM, OnSignal, base.get()));
  EventPtr intr(evsignal_new(base.get(), SIGINT, OnSignal, base.get()));
  evsignal_add(term.get(), nullptr);
  evsignal_add(intr.get(), nullptr);

  source.Start();
  std::printf("vskctl: serving metrics on http://%s/metrics\n", BoundAddress(bound).c_str());
  std::fflush(stdout);
  sd_notify(0, "READY=1");
  event_base_dispatch(base.get());
  if (!source.Stop()) {
    // The store probe is wedged inside Berkeley DB; nothing else is left to do.
    std::fflush(stdout);
    std::_Exit(kExitOk);
  }
  return kExitOk;
}

}  // namespace

void AddServeMetrics(CLI::App& app, const Globals& globals, Action* action) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* sub = AddSubcommand(
      app, "serve-metrics", "serve counters, pools, interface table and store figures over HTTP",
      globals, action, RunServeMetrics, options);
  sub->add_option("--listen", options->listen, "address and port (port 0: any free port)")
      ->capture_default_str();
  sub->add_option("--client-timeout", options->client_timeout,
                  "seconds before a slow or idle client is dropped")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  sub->add_option("--store-interval", options->store_interval,
                  "seconds between probes of the Berkeley DB environment")
      ->check(CLI::Range(0.05, 3600.0))
      ->capture_default_str();
}

}  // namespace vskctl
