// This platform's model ids and what each can do.
//
// The session store runs on 71 models of the product line; three of them (the largest
// chassis) scale the replication queue up. The deployment selects the model with the
// environment variable VSK_MODEL_ID:
//   unset        -> kDefaultModelId, a supported model, so the store runs out of the box;
//   a number     -> that model id (which may be unsupported);
//   "none"       -> the platform has no product record (everything unsupported).
//
// Model id ranges (see kModels in product_info.cc for names):
//   2101-2124  access edge, 1 RU and 2 RU         (24 models)
//   2201-2224  aggregation, 4 RU to 8 RU          (24 models)
//   2301-2323  service chassis                    (23 models; 2321-2323 scale)
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "vsk/product_info.h"

namespace vsk::platform {

struct ModelCapability {
  int16_t model_id;
  const char* name;
  bool scaling;
};

inline constexpr int16_t kDefaultModelId = 2201;

// Every model that runs the session store, in ascending id order.
std::span<const ModelCapability> SupportedModels();

// The capability of `model_id`, or nothing when the model does not run the store.
std::optional<ModelCapability> FindModel(int16_t model_id);

// Forgets the cached platform record so that the next product_info_data() reads
// VSK_MODEL_ID again. Does not touch product_infop.
void ResetProductInfo();

}  // namespace vsk::platform
