// See intf_view.h.
#include "libvsk/shared/intf_view.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "libvsk/shared/intf_file.h"
#include "libvsk/shared/intf_layout.h"
#include "vsk/shared.h"

namespace vsk::shared::intf {
namespace {

// Deeper than any balanced tree that fits in a 2 GiB file; a deeper walk is a damaged one.
constexpr size_t kMaxDepth = 96;

// The private copy of the file. Invariant: every Get reads inside bytes_, at or behind the
// heap's start, or fails: an offset read from the file goes through a ByteReader.
class Copy {
 public:
  explicit Copy(std::vector<char> bytes) : bytes_(std::move(bytes)) {}
  size_t size() const { return bytes_.size(); }

  template <typename T>
  bool Get(uint32_t offset, T* out) const {
    base::ByteReader r(bytes_.data(), bytes_.size());
    return offset >= kHeapStart && r.Skip(offset) && r.Get(out);
  }

 private:
  std::vector<char> bytes_;
};

// Walks the tree whose root node is at `root` in key order and calls fn(record offset)
// for each node whose `data` names a record of type Record that holds it at `node_at`.
// False (with *damage set) at the first link that cannot be trusted.
template <typename Record, typename Fn>
bool WalkTree(const Copy& copy, uint32_t root, size_t node_at, const char* what, Fn fn,
              std::string* damage) {
  const size_t limit = copy.size() / sizeof(Record) + 1;
  std::vector<uint32_t> stack;
  size_t visited = 0;
  uint32_t cur = root;
  auto bad = [&](const std::string& why) {
    *damage = std::string(what) + ": " + why;
    return false;
  };
  while (cur != 0 || !stack.empty()) {
    while (cur != 0) {
      if (stack.size() >= kMaxDepth) return bad("tree deeper than any balanced tree");
      stack.push_back(cur);
      SHGenAVLNode node{};
      if (!copy.Get(cur, &node)) return bad("node offset " + std::to_string(cur) + " outside");
      cur = node.left;
    }
    const uint32_t at = stack.back();
    stack.pop_back();
    SHGenAVLNode node{};
    copy.Get(at, &node);
    if (++visited > limit) return bad("more nodes than the file can hold");
    if (node.data > UINT32_MAX - node_at || node.data + node_at != at) {
      return bad("node at " + std::to_string(at) + " does not belong to its record");
    }
    Record rec{};
    if (!copy.Get(node.data, &rec)) return bad("record offset outside the file");
    fn(node.data, rec);
    cur = node.right;
  }
  return true;
}

bool ReadWhole(int fd, size_t size, std::vector<char>* out) {
  out->assign(size, 0);
  size_t done = 0;
  while (done < size) {
    ssize_t n = pread(fd, out->data() + done, size - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  // A file shorter than its header says (being rebuilt) keeps what was read.
  out->resize(done);
  return done >= sizeof(FileHeader);
}

// Semaphore 2 for the length of the copy, never marked in the file: the reader changes
// nothing, so dying while holding it leaves nothing to repair (SEM_UNDO gives it back).
class CopyLock {
 public:
  bool Take(std::string* error) {
    if (vsk_lock_init(false) != 0) {
      *error = "the semaphore set of this root does not exist (orvd has not run here)";
      return false;
    }
    if (vsk_acquire_lock(VSK_LOCK_HEAP) != 0) {
      *error = std::string("cannot take the interface table's semaphore: ") + std::strerror(errno);
      return false;
    }
    held_ = true;
    return true;
  }
  ~CopyLock() {
    if (held_) vsk_release_lock(VSK_LOCK_HEAP);
  }

 private:
  bool held_ = false;
};

}  // namespace

bool ReadInterfaceTable(Locking locking, InterfaceTable* out, std::string* error) {
  *out = InterfaceTable{};
  out->path = FilePath();
  int fd = open(out->path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = "interface table " + out->path + ": " + std::strerror(errno);
    return false;
  }
  std::vector<char> bytes;
  bool read_ok = false;
  {
    CopyLock lock;
    if (locking == Locking::kSemaphore && !lock.Take(error)) {
      close(fd);
      return false;
    }
    struct stat st {};
    read_ok = fstat(fd, &st) == 0 && ReadWhole(fd, static_cast<size_t>(st.st_size), &bytes);
  }
  close(fd);
  if (!read_ok) {
    *error = "interface table " + out->path + ": shorter than its header";
    return false;
  }
  FileHeader h{};
  base::ByteReader header(bytes.data(), bytes.size());
  if (!header.Get(&h) || h.initialized != 1) {
    *error = "interface table " + out->path + " is not formatted (orvd has not built it)";
    return false;
  }
  out->file_size = h.file_size;
  out->grow_size = h.grow_size;
  out->heap_top = h.heap_top;
  if (locking == Locking::kSemaphore) out->dead_holder = h.lock_pid;

  Copy copy(std::move(bytes));
  constexpr size_t kIfNode = offsetof(InterfaceRecord, node);
  constexpr size_t kSessionNode = offsetof(SessionNode, node);
  WalkTree<InterfaceRecord>(
      copy, h.interfaces.root, kIfNode, "interface tree",
      [&](uint32_t, const InterfaceRecord& rec) {
        InterfaceInfo info;
        info.name.assign(rec.name, strnlen(rec.name, sizeof rec.name));
        info.ifl_count = rec.ifl_count;
        info.uifl_count = rec.uifl_count;
        info.state = rec.state;
        if (out->damage.empty()) {
          WalkTree<SessionNode>(
              copy, rec.sessions_root, kSessionNode, "session tree",
              [&](uint32_t, const SessionNode& node) { info.sessions.push_back(IdOf(&node)); },
              &out->damage);
          if (!out->damage.empty()) out->damage += " (interface " + info.name + ")";
        }
        out->interfaces.push_back(std::move(info));
      },
      &out->damage);
  return true;
}

}  // namespace vsk::shared::intf
