// vsk-issu: the operator's control of an in-service upgrade through orvd, which plays
// the chassis daemon's part and relays each state to the daemons that take part.
//
//   vsk-issu prepare|done|switchover|abort|idle|status
//   vsk-issu inject STATE      relays STATE unchecked, to rehearse how daemons take it
//
// A rehearsal runs: prepare, done (once every daemon is ready), switchover, done (session
// operations now stop), idle. abort calls it off; idle follows once every daemon is back.
// Prints orvd's answer, the upgrade's status as JSON, on stdout. Exit status: 0 done,
// 1 refused (the reason is in "error" and on stderr), 2 orvd unreachable or the answer
// malformed.
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvsk/base/byte_reader.h"
#include "libvsk/orvd_client/wire.h"
#include "platform/paths.h"

namespace {

using namespace vsk::orvd;

// Reads exactly `size` bytes; false on end of file or an error.
bool ReadAll(int fd, void* buf, size_t size) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = recv(fd, static_cast<char*>(buf) + got, size - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

int Fail(const std::string& what) {
  std::fprintf(stderr, "vsk-issu: %s\n", what.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, uint32_t> commands = {
      {"status", kIssuCmdStatus}, {"prepare", kIssuCmdPrepare},
      {"done", kIssuCmdDone},     {"switchover", kIssuCmdSwitchover},
      {"abort", kIssuCmdAbort},   {"idle", kIssuCmdIdle},
      {"inject", kIssuCmdInject}};
  CLI::App app{"vsk-issu: drive an in-service upgrade through orvd"};
  std::string command;
  uint32_t value = 0;
  app.add_option("command", command, "prepare|done|switchover|abort|idle|status|inject")
      ->required()
      ->check(CLI::IsMember(commands));
  app.add_option("state", value, "the chassis state that inject relays");
  bool pretty = false;
  app.add_flag("--pretty", pretty, "indent the JSON");
  CLI11_PARSE(app, argc, argv);

  std::string path = vsk::platform::RootedPath(vsk::platform::kOrvdSocket);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return Fail("socket path too long: " + path);
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    return Fail("cannot reach orvd at " + path + ": " + std::strerror(errno));
  }
  if ((command == "inject") != (app.count("state") == 1)) {
    std::fprintf(stderr, "vsk-issu: a state goes with inject, and only with it\n");
    return 2;
  }
  IssuControlMsg msg{ORVD_MSG_ISSU_CONTROL, commands.at(command), value};
  if (send(fd, &msg, sizeof msg, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof msg)) {
    return Fail(std::string("cannot send to orvd: ") + std::strerror(errno));
  }
  uint8_t head_bytes[sizeof(IssuControlReply)];
  if (!ReadAll(fd, head_bytes, sizeof head_bytes)) return Fail("orvd closed without answering");
  vsk::base::ByteReader head(head_bytes, sizeof head_bytes);
  uint32_t type = 0, length = 0;
  int32_t status = 0;
  head.Get(&type);
  head.Get(&status);
  head.Get(&length);
  if (type != ORVD_MSG_ISSU_CONTROL_REPLY || length > kIssuReplyMax) {
    return Fail("malformed answer from orvd");
  }
  std::string text(length, '\0');
  if (!ReadAll(fd, text.data(), length)) return Fail("orvd's answer was cut short");
  close(fd);
  nlohmann::json body = nlohmann::json::parse(text, nullptr, false);
  if (body.is_discarded()) return Fail("orvd's answer is not JSON");
  std::printf("%s\n", body.dump(pretty ? 2 : -1).c_str());
  if (status != 0) {
    std::fprintf(stderr, "vsk-issu: %s refused: %s\n", command.c_str(),
                 body.value("error", std::string("no reason given")).c_str());
    return 1;
  }
  return 0;
}
