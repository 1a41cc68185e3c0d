// Platform capability: does this model run the session store, replicate it, and scale?
// Decided by the platform's model id (platform/product_info.h).
#include "platform/product_info.h"
#include "vsk/store.h"

namespace {

std::optional<vsk::platform::ModelCapability> ThisModel() {
  const product_info_t* info = product_infop != nullptr ? product_infop : product_info_data();
  if (info == nullptr) return std::nullopt;
  return vsk::platform::FindModel(info->model_id);
}

}  // namespace

extern "C" {

bool vsk_db_supported(void) { return ThisModel().has_value(); }

bool vsk_db_rep_supported(void) { return vsk_db_supported(); }

bool vsk_db_support_scaling(void) {
  auto model = ThisModel();
  return model.has_value() && model->scaling;
}

}  // extern "C"
