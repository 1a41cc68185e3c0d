// The firewall daemon's record of a session, read from the application private data
// (application id 6) and handed over unpacked: vsk_app_pflt_data_get and its free.
//
// Ownership: every text and list the caller receives was allocated with malloc by the
// decoder and moved into the result; what is not carried over (the lists of tags 3, 6, 13
// and 16, which the result reduces to a flag) is released with the decoded record.
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "libvsk/base/trace.h"
#include "libvsk/sidedata/field_codec.h"
#include "libvsk/vsk/app_data_internal.h"
#include "vsk/pfltd.h"
#include "vsk/tables.h"

namespace vsk::sidedata {
namespace {

void* MallocContext(size_t size, void*) { return std::malloc(size); }
void FreeContext(void* ptr, void*) { std::free(ptr); }

// One word of the result (two for a list: count and items) and the field it comes from.
enum class Word : uint8_t { kText, kNumber, kListFlag, kList };
struct WordSource {
  Word kind;
  uint16_t from;   // offset of the field in the decoded record
  uint16_t to;     // offset of the word in the result (a list's items)
  uint16_t count;  // a list's count word in the result
};

#define VSK_WORD(kind, tag, to, count)                                                       \
  WordSource {                                                                               \
    Word::kind, offsetof(pfltd_vsk_data_t, t##tag), offsetof(vsk_app_pflt_data_t, to), count \
  }
#define TEXT(tag) VSK_WORD(kText, tag, t##tag, 0)
#define NUMBER(tag) VSK_WORD(kNumber, tag, t##tag, 0)
#define FLAG(tag) VSK_WORD(kListFlag, tag, t##tag##_present, 0)
#define LIST(tag) VSK_WORD(kList, tag, t##tag, offsetof(vsk_app_pflt_data_t, t##tag##_count))

// The result in its order. The numbers of tags 37 to 40 are not carried over.
constexpr WordSource kWords[] = {
    TEXT(1),  NUMBER(2),  FLAG(3),    TEXT(4),   NUMBER(5),  FLAG(6),    TEXT(11), NUMBER(12),
    FLAG(13), TEXT(14),   NUMBER(15), FLAG(16),  TEXT(7),    NUMBER(8),  TEXT(9),  NUMBER(10),
    TEXT(17), NUMBER(18), LIST(19),   TEXT(20),  NUMBER(21), LIST(22),   TEXT(23), NUMBER(24),
    LIST(25), TEXT(26),   NUMBER(27), LIST(28),  TEXT(33),   NUMBER(34), TEXT(35), NUMBER(36),
    TEXT(29), NUMBER(30), TEXT(31),   NUMBER(32)};

#undef TEXT
#undef NUMBER
#undef FLAG
#undef LIST
#undef VSK_WORD

constexpr size_t WordCount() {
  size_t n = 0;
  for (const WordSource& w : kWords) n += w.kind == Word::kList ? 2 : 1;
  return n;
}
static_assert(WordCount() == 40, "the result has 40 words");

template <typename T>
T& At(void* base, uint16_t offset) {
  return *reinterpret_cast<T*>(static_cast<uint8_t*>(base) + offset);
}

// Moves every text and kept list from `record` into `out`; the record forgets what it
// gave, so that its release frees only what was not carried over.
void Unpack(pfltd_vsk_data_t& record, vsk_app_pflt_data_t* out) {
  for (const WordSource& w : kWords) {
    switch (w.kind) {
      case Word::kText:
        At<char*>(out, w.to) = std::exchange(At<char*>(&record, w.from), nullptr);
        break;
      case Word::kNumber:
        At<uint32_t>(out, w.to) = At<uint32_t>(&record, w.from);
        break;
      case Word::kListFlag: {
        const auto& list = At<pfltd_vsk_array_t>(&record, w.from);
        At<uint32_t>(out, w.to) = list.items != nullptr && list.count != 0;
        break;
      }
      case Word::kList: {
        auto& list = At<pfltd_vsk_array_t>(&record, w.from);
        At<uint32_t>(out, w.count) = std::exchange(list.count, 0);
        At<char**>(out, w.to) = std::exchange(list.items, nullptr);
        break;
      }
    }
  }
}

// Frees every text and list the result holds.
void FreeWords(vsk_app_pflt_data_t* d) {
  for (const WordSource& w : kWords) {
    if (w.kind == Word::kText) std::free(At<char*>(d, w.to));
    if (w.kind != Word::kList) continue;
    char** items = At<char**>(d, w.to);
    if (items == nullptr) continue;
    for (uint32_t i = 0; i < At<uint32_t>(d, w.count); ++i) std::free(items[i]);
    std::free(items);
  }
}

vsk_status_t GetPfltData(vsk_session_id_t session_id, vsk_app_pflt_data_t** result) {
  *result = nullptr;
  vsk_app_data_t* data = vsk::session::ReadAppPrivateData(session_id, VSK_APP_ID_PFLTD);
  if (data == nullptr) return VSK_ERR_NOT_FOUND;
  pfltd_vsk_data_t record{};
  const int32_t used =
      DecodeTagged(kPfltdSchema, &record, nullptr, static_cast<const uint8_t*>(data->data),
                   data->length, MallocContext, nullptr);
  vsk_status_t st = VSK_OK;
  if (used < 0) {
    st = VSK_ERR_CORRUPT;
  } else {
    auto* out = static_cast<vsk_app_pflt_data_t*>(std::calloc(1, sizeof(vsk_app_pflt_data_t)));
    if (out == nullptr) {
      st = VSK_ERR_NOMEM;
    } else {
      Unpack(record, out);
      *result = out;
    }
  }
  Release(kPfltdSchema, &record, FreeContext, nullptr);
  vsk_db_release_app_pri_data(data, true);
  return st;
}

}  // namespace
}  // namespace vsk::sidedata

extern "C" {

vsk_status_t vsk_app_pflt_data_get(vsk_session_id_t session_id, vsk_app_pflt_data_t** result) {
  if (result == nullptr) {
    VSK_TRACE("%s: no result pointer given", __func__);
    return VSK_ERR_INVALID_PARAM;
  }
  return vsk::sidedata::GetPfltData(session_id, result);
}

void vsk_app_pflt_data_free(vsk_app_pflt_data_t** result) {
  if (result == nullptr || *result == nullptr) return;
  vsk::sidedata::FreeWords(*result);
  std::free(*result);
  *result = nullptr;
}

}  // extern "C"
