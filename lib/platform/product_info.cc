#include "platform/product_info.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace vsk::platform {
namespace {

// Ascending by id; FindModel relies on the order.
constexpr ModelCapability kModels[] = {
    {2101, "ae-01", false},
    {2102, "ae-02", false},
    {2103, "ae-03", false},
    {2104, "ae-04", false},
    {2105, "ae-05", false},
    {2106, "ae-06", false},
    {2107, "ae-07", false},
    {2108, "ae-08", false},
    {2109, "ae-09", false},
    {2110, "ae-10", false},
    {2111, "ae-11", false},
    {2112, "ae-12", false},
    {2113, "ae-13", false},
    {2114, "ae-14", false},
    {2115, "ae-15", false},
    {2116, "ae-16", false},
    {2117, "ae-17", false},
    {2118, "ae-18", false},
    {2119, "ae-19", false},
    {2120, "ae-20", false},
    {2121, "ae-21", false},
    {2122, "ae-22", false},
    {2123, "ae-23", false},
    {2124, "ae-24", false},
    {2201, "ag-01", false},
    {2202, "ag-02", false},
    {2203, "ag-03", false},
    {2204, "ag-04", false},
    {2205, "ag-05", false},
    {2206, "ag-06", false},
    {2207, "ag-07", false},
    {2208, "ag-08", false},
    {2209, "ag-09", false},
    {2210, "ag-10", false},
    {2211, "ag-11", false},
    {2212, "ag-12", false},
    {2213, "ag-13", false},
    {2214, "ag-14", false},
    {2215, "ag-15", false},
    {2216, "ag-16", false},
    {2217, "ag-17", false},
    {2218, "ag-18", false},
    {2219, "ag-19", false},
    {2220, "ag-20", false},
    {2221, "ag-21", false},
    {2222, "ag-22", false},
    {2223, "ag-23", false},
    {2224, "ag-24", false},
    {2301, "sc-01", false},
    {2302, "sc-02", false},
    {2303, "sc-03", false},
    {2304, "sc-04", false},
    {2305, "sc-05", false},
    {2306, "sc-06", false},
    {2307, "sc-07", false},
    {2308, "sc-08", false},
    {2309, "sc-09", false},
    {2310, "sc-10", false},
    {2311, "sc-11", false},
    {2312, "sc-12", false},
    {2313, "sc-13", false},
    {2314, "sc-14", false},
    {2315, "sc-15", false},
    {2316, "sc-16", false},
    {2317, "sc-17", false},
    {2318, "sc-18", false},
    {2319, "sc-19", false},
    {2320, "sc-20", false},
    {2321, "sc-21", true},
    {2322, "sc-22", true},
    {2323, "sc-23", true},
};
static_assert(std::size(kModels) == 71, "the store runs on 71 models");
static_assert(std::count_if(std::begin(kModels), std::end(kModels),
                            [](const ModelCapability& m) { return m.scaling; }) == 3,
              "three models scale");

product_info_t g_record;
bool g_loaded = false;
bool g_present = false;

// Reads VSK_MODEL_ID once per reset; see the header for its forms.
void Load() {
  g_loaded = true;
  g_present = false;
  std::memset(&g_record, 0, sizeof g_record);
  const char* text = std::getenv("VSK_MODEL_ID");
  long id = kDefaultModelId;
  if (text != nullptr && *text != '\0') {
    if (std::strcmp(text, "none") == 0) return;
    char* end = nullptr;
    errno = 0;
    id = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || id < INT16_MIN || id > INT16_MAX) return;
  }
  g_record.model_id = static_cast<int16_t>(id);
  auto model = FindModel(g_record.model_id);
  std::strncpy(g_record.model_name, model ? model->name : "unknown",
               sizeof g_record.model_name - 1);
  g_present = true;
}

}  // namespace

std::span<const ModelCapability> SupportedModels() { return kModels; }

std::optional<ModelCapability> FindModel(int16_t model_id) {
  auto it = std::lower_bound(
      std::begin(kModels), std::end(kModels), model_id,
      [](const ModelCapability& m, int16_t id) { return m.model_id < id; });
  if (it == std::end(kModels) || it->model_id != model_id) return std::nullopt;
  return *it;
}

void ResetProductInfo() { g_loaded = false; }

}  // namespace vsk::platform

extern "C" {

product_info_t* product_infop = nullptr;

product_info_t* product_info_data(void) {
  if (!vsk::platform::g_loaded) vsk::platform::Load();
  return vsk::platform::g_present ? &vsk::platform::g_record : nullptr;
}

}
