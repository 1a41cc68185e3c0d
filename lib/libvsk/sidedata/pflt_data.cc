// The firewall daemon's record of a session, read from the application private data
// (application id 6) and handed over unpacked: vsk_app_pflt_data_get and its free.
//
// Ownership: every text and list the caller receives was allocated with malloc by the
// decoder and moved into the result; what is not carried over (the lists of tags 3, 6, 13
// and 16, which the result reduces to a flag) is released with the decoded record.
#include <cstdlib>

#include "libvsk/base/trace.h"
#include "libvsk/sidedata/app_private_read.h"
#include "libvsk/sidedata/field_codec.h"
#include "vsk/pfltd.h"
#include "vsk/tables.h"

namespace vsk::sidedata {
namespace {

void* MallocContext(size_t size, void*) { return std::malloc(size); }
void FreeContext(void* ptr, void*) { std::free(ptr); }

// Hands a text over to the result; the record forgets it so its release leaves it.
char* Take(char*& text) {
  char* out = text;
  text = nullptr;
  return out;
}

void TakeList(pfltd_vsk_array_t& list, uint32_t* count, char*** items) {
  *count = list.count;
  *items = list.items;
  list.items = nullptr;
  list.count = 0;
}

uint32_t HasItems(const pfltd_vsk_array_t& list) {
  return list.items != nullptr && list.count != 0;
}

void Unpack(pfltd_vsk_data_t& r, vsk_app_pflt_data_t* out) {
  out->t1 = Take(r.t1);
  out->t2 = r.t2;
  out->t3_present = HasItems(r.t3);
  out->t4 = Take(r.t4);
  out->t5 = r.t5;
  out->t6_present = HasItems(r.t6);
  out->t11 = Take(r.t11);
  out->t12 = r.t12;
  out->t13_present = HasItems(r.t13);
  out->t14 = Take(r.t14);
  out->t15 = r.t15;
  out->t16_present = HasItems(r.t16);
  out->t7 = Take(r.t7);
  out->t8 = r.t8;
  out->t9 = Take(r.t9);
  out->t10 = r.t10;
  out->t17 = Take(r.t17);
  out->t18 = r.t18;
  TakeList(r.t19, &out->t19_count, &out->t19);
  out->t20 = Take(r.t20);
  out->t21 = r.t21;
  TakeList(r.t22, &out->t22_count, &out->t22);
  out->t23 = Take(r.t23);
  out->t24 = r.t24;
  TakeList(r.t25, &out->t25_count, &out->t25);
  out->t26 = Take(r.t26);
  out->t27 = r.t27;
  TakeList(r.t28, &out->t28_count, &out->t28);
  out->t33 = Take(r.t33);
  out->t34 = r.t34;
  out->t35 = Take(r.t35);
  out->t36 = r.t36;
  out->t29 = Take(r.t29);
  out->t30 = r.t30;
  out->t31 = Take(r.t31);
  out->t32 = r.t32;
  // The numbers of tags 37 to 40 are not carried over.
}

void FreeList(char** items, uint32_t count) {
  if (items == nullptr) return;
  for (uint32_t i = 0; i < count; ++i) std::free(items[i]);
  std::free(items);
}

vsk_status_t GetPfltData(vsk_session_id_t session_id, vsk_app_pflt_data_t** result) {
  *result = nullptr;
  vsk_app_data_t* data = ReadAppPrivateData(session_id, VSK_APP_ID_PFLTD);
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
  vsk_app_pflt_data_t* d = *result;
  for (char* text : {d->t1, d->t4, d->t11, d->t14, d->t7, d->t9, d->t17, d->t20, d->t23, d->t26,
                     d->t33, d->t35, d->t29, d->t31}) {
    std::free(text);
  }
  vsk::sidedata::FreeList(d->t19, d->t19_count);
  vsk::sidedata::FreeList(d->t22, d->t22_count);
  vsk::sidedata::FreeList(d->t25, d->t25_count);
  vsk::sidedata::FreeList(d->t28, d->t28_count);
  std::free(d);
  *result = nullptr;
}

}  // extern "C"
