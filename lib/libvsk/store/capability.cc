// Platform capability: does this model run the session store, replicate it, and scale?
// Decided by the platform's model id (platform/product_info.h).
#include "libvsk/store/capability.h"

#include "platform/product_info.h"
#include "vsk/store.h"

namespace {

std::optional<vsk::platform::ModelCapability> ThisModel() {
  const product_info_t* info = product_infop != nullptr ? product_infop : product_info_data();
  if (info == nullptr) return std::nullopt;
  return vsk::platform::FindModel(info->model_id);
}

}  // namespace

bool vsk::store::Supported() { return ThisModel().has_value(); }

extern "C" bool vsk_db_supported(void) { return vsk::store::Supported(); }

bool vsk::store::RepSupported() { return vsk::store::Supported(); }

extern "C" bool vsk_db_rep_supported(void) { return vsk::store::RepSupported(); }

bool vsk::store::SupportScaling() {
  auto model = ThisModel();
  return model.has_value() && model->scaling;
}

extern "C" bool vsk_db_support_scaling(void) { return vsk::store::SupportScaling(); }
