#include "support/repl_pair.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "libvsk/orvd_client/clients_table.h"
#include "libvsk/shared/root_objects.h"
#include "platform/hwframe.h"
#include "platform/paths.h"
#include "support/txn.h"
#include "vsk/vsk.h"

namespace vsk::test {

using Clock = std::chrono::steady_clock;

ScopedRoot::ScopedRoot(const std::string& root) {
  const char* old = getenv("VSK_ROOT");
  saved_ = old != nullptr ? old : "";
  setenv("VSK_ROOT", root.c_str(), 1);
}

ScopedRoot::~ScopedRoot() { setenv("VSK_ROOT", saved_.c_str(), 1); }

bool DaemonProcess::Start(const std::string& program, const std::vector<std::string>& args,
                          const std::string& log_file) {
  const pid_t parent = getpid();
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    DieWithParent(parent);
    int fd = open(log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    std::vector<char*> argv;
    std::string name = std::filesystem::path(program).filename();
    argv.push_back(name.data());
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  return pid_ > 0;
}

int DaemonProcess::Stop(int sig) {
  if (pid_ <= 0) return -1;
  kill(pid_, sig);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool DaemonProcess::Alive() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  pid_ = -1;
  return false;
}

void Engine::SetRole(bool master) const {
  ScopedRoot root(root_);
  platform::WriteRoleFile(master);
}

namespace {
bool WaitFile(const std::string& path, const DaemonProcess& p, std::chrono::milliseconds limit) {
  auto end = Clock::now() + limit;
  struct stat st;
  while (Clock::now() < end && p.running()) {
    if (stat(path.c_str(), &st) == 0) return true;
    int status;
    if (waitpid(p.pid(), &status, WNOHANG) == p.pid()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}
}  // namespace

bool Engine::StartOrvd() {
  ScopedRoot root(root_);
  std::string socket = platform::RootedPath(platform::kOrvdSocket);
  unlink(socket.c_str());
  if (!orvd_.Start(VSK_BINARY_DIR "/daemons/orvd", {"--foreground", "--stderr"},
                   platform::RootedPath("/var/log/orvd.log"))) {
    return false;
  }
  return WaitFile(socket, orvd_, std::chrono::seconds(30));
}

bool Engine::StartLodexd() {
  ScopedRoot root(root_);
  std::string status = platform::RootedPath(platform::kLodexStatusFile);
  unlink(status.c_str());
  std::vector<std::string> args = {"--foreground", "--stderr", "--listen",
                                   "127.0.0.1:" + std::to_string(port_), "--peer",
                                   "127.0.0.1:" + std::to_string(peer_port_)};
  if (!lodexd_.Start(VSK_BINARY_DIR "/daemons/lodexd", args,
                     platform::RootedPath("/var/log/lodexd.log"))) {
    return false;
  }
  return WaitFile(status, lodexd_, std::chrono::seconds(30));
}

void Engine::StopAll(int sig) {
  lodexd_.Stop(sig);
  orvd_.Stop(sig);
}

platform::LodexStatus Engine::Status() const {
  ScopedRoot root(root_);
  platform::LodexStatus s;
  platform::ReadLodexStatus(&s);
  return s;
}

bool Engine::WaitStatus(const std::function<bool(const platform::LodexStatus&)>& done,
                        std::chrono::milliseconds timeout, platform::LodexStatus* last) const {
  auto end = Clock::now() + timeout;
  platform::LodexStatus s;
  for (;;) {
    s = Status();
    if (done(s)) break;
    if (Clock::now() > end) {
      if (last != nullptr) *last = s;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (last != nullptr) *last = s;
  return true;
}

bool Engine::WaitInSync(std::chrono::milliseconds timeout) const {
  // Only a status written after this call began tells about what was committed before it.
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  const int64_t since_ms = int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
  return WaitStatus(
      [since_ms](const platform::LodexStatus& s) {
        return s.master && s.in_sync && s.updated_ms > since_ms;
      },
      timeout);
}

bool Engine::WaitRegistered(bool master, std::chrono::milliseconds timeout) const {
  return WaitStatus(
      [master](const platform::LodexStatus& s) { return s.env_open && s.master == master; },
      timeout);
}

std::string Engine::LogTail() const {
  std::ostringstream out;
  for (const char* name : {"/var/log/orvd.log", "/var/log/lodexd.log"}) {
    std::ifstream in(root_ + name);
    std::stringstream text;
    text << in.rdbuf();
    std::string all = text.str();
    if (all.size() > 12000) all = all.substr(all.size() - 12000);
    out << "---- " << root_ << name << "\n" << all;
  }
  out << "---- lodexd status\n" << platform::FormatLodexStatus(Status());
  return out.str();
}

bool Engine::WaitOrvdLog(const std::string& text, std::chrono::milliseconds timeout) const {
  auto end = Clock::now() + timeout;
  do {
    std::ifstream in(root_ + "/var/log/orvd.log");
    std::stringstream all;
    all << in.rdbuf();
    if (all.str().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  } while (Clock::now() < end);
  return false;
}

uint16_t FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

void ReplPairTest::SetUp() {
  VskTest::SetUp();
  root2_ = AddRoot();
  ASSERT_FALSE(root2_.empty());
  uint16_t pa = FreeLoopbackPort();
  uint16_t pb = FreeLoopbackPort();
  a_ = std::make_unique<Engine>(root(), pa, pb);
  b_ = std::make_unique<Engine>(root2_, pb, pa);
  a_->SetRole(true);
  b_->SetRole(false);
}

void ReplPairTest::TearDown() {
  if (HasFailure()) {
    std::fprintf(stderr, "%s\n%s\n", a_->LogTail().c_str(), b_->LogTail().c_str());
  }
  a_->StopAll(SIGKILL);
  b_->StopAll(SIGKILL);
  VskTest::TearDown();  // removes both roots
}

void ReplPairTest::StartPair() {
  ASSERT_TRUE(a_->StartOrvd()) << a_->LogTail();
  ASSERT_TRUE(b_->StartOrvd()) << b_->LogTail();
  ASSERT_TRUE(a_->StartLodexd()) << a_->LogTail();
  ASSERT_TRUE(b_->StartLodexd()) << b_->LogTail();
}

ChildResult ReplPairTest::AsClientOf(const Engine& e, const std::function<int()>& fn,
                                     std::chrono::milliseconds wait) {
  std::string root = e.root();
  return RunInChild([root, fn, wait]() {
    setenv("VSK_ROOT", root.c_str(), 1);
    auto end = Clock::now() + wait;
    vsk_status_t rc = VSK_OK;
    orvd_ctx_t* h = nullptr;
    for (;;) {
      h = orvd_init_handle();
      orvd_set_reg_type_poll(h);
      rc = orvd_register(h);
      if (rc == VSK_OK) break;
      orvd_unregister(&h);
      if (Clock::now() > end) return 100 - rc;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    int result = fn();
    orvd_unregister(&h);
    return result;
  }, wait + std::chrono::seconds(30));
}

bool ReplPairTest::AllOn(const Engine& e, uint64_t first, uint64_t count) {
  ChildResult r = AsClientOf(e, [=] {
    int found = CountSessions(Ids(first, count));
    if (found == static_cast<int>(count)) return 0;
    std::fprintf(stderr, "found %d of %d sessions\n", found, static_cast<int>(count));
    return 1;
  });
  return r.Ok();
}

std::vector<uint64_t> Ids(uint64_t first, uint64_t count) {
  std::vector<uint64_t> ids(count);
  for (uint64_t i = 0; i < count; ++i) ids[i] = first + i;
  return ids;
}

int PutSessions(uint64_t first, uint64_t count, const std::string& tag) {
  for (uint64_t id = first; id < first + count; ++id) {
    std::string user = tag + std::to_string(id);
    uint32_t type = 1;
    vsk_attr_t attrs[2] = {
        {VSK_USER_NAME, static_cast<uint16_t>(user.size()), user.data(), nullptr},
        {VSK_CLIENT_SESSION_TYPE, sizeof type, &type, nullptr},
    };
    vsk_attr_list_t list;
    vsk_attr_list_init(&list);
    for (vsk_attr_t& a : attrs) vsk_attr_list_append(&list, &a);
    vsk_client_session_t rec{};
    rec.attrs = &list;
    rec.dynamic_id = id;
    vsk_status_t st = VSK_OK;
    for (int attempt = 0; attempt < 4; ++attempt) {
      st = InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_client_session(t, &id, &rec); });
      if (st != VSK_ERR_RETRY && st != VSK_ERR_RECOVERING) break;
    }
    if (st != VSK_OK) return st;
  }
  return 0;
}

int CountSessions(const std::vector<uint64_t>& ids, const std::string& tag) {
  int found = 0;
  for (uint64_t id : ids) {
    vsk_db_txn_t txn{};
    if (vsk_db_start_txn(&txn) != VSK_OK) continue;
    vsk_client_session_t* rec = nullptr;
    vsk_status_t st = vsk_db_get_client_session(&txn, &id, &rec, false);
    if (st == VSK_OK) {
      vsk_attr_t* user = vsk_get_attribute_from_list(rec->attrs, VSK_USER_NAME);
      std::string want = tag + std::to_string(id);
      if (user != nullptr && std::string(static_cast<char*>(user->value), user->length) == want) {
        ++found;
      }
    }
    vsk_db_release_client_session(rec, true);
    if (st == VSK_OK) {
      vsk_db_end_txn(&txn);
    } else {
      vsk_db_abort_txn(&txn, st);
    }
  }
  return found;
}

}  // namespace vsk::test
