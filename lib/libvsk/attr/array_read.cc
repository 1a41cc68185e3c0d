// The helpers of array reads over a snapshot's dynamic tree: whether an instance is read
// to its end, the reset of the array cursor, and whether a name continues the array being
// read. Callers: the dynamic attribute readers; one handle belongs to one thread.
#include <cstdlib>
#include <cstring>

#include "vsk/snapshot.h"

extern "C" {

bool vsk_done_reading_all_array_entries(const vsk_snapshot_handle* snapshot) {
  return snapshot != nullptr &&
         static_cast<uint32_t>(snapshot->entry_count) == snapshot->entry_index + 1;
}

void vsk_cleanup_after_arrays(vsk_snapshot_handle* snapshot) {
  if (snapshot == nullptr) return;
  std::free(snapshot->array_attr_name);
  std::free(snapshot->array_attr_value);
  std::free(snapshot->last_attr_name);
  snapshot->array_attr_name = nullptr;
  snapshot->array_attr_value = nullptr;
  snapshot->last_attr_name = nullptr;
  snapshot->same_entry = 0;
  snapshot->array_done = 0;
  snapshot->array_id = 0;
  snapshot->array_root = nullptr;
  snapshot->level_root = nullptr;
  std::memset(snapshot->level_cursor, 0, sizeof snapshot->level_cursor);
  std::memset(snapshot->level_next, 0, sizeof snapshot->level_next);
  snapshot->level = 0;
  snapshot->entry_index = 0;
  snapshot->entry_count = 0;
}

int vsk_get_next_array(const char* name, vsk_snapshot_handle* snapshot) {
  if (snapshot == nullptr) return 0;
  if (snapshot->array_done) {
    vsk_cleanup_after_arrays(snapshot);
    return 0;
  }
  if (name == nullptr || snapshot->array_attr_name == nullptr || name[0] == '\0') return 0;
  // The first character of `name` is not compared; callers depend on that.
  return std::strcmp(name + 1, snapshot->array_attr_name) == 0 ? 1 : 0;
}

}  // extern "C"
