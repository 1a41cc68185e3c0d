// Feeds arbitrary bytes to the positional decoder of the filter daemon's record. A decode
// must end in a result within the input and leave nothing unreleased; a record that
// decodes must encode and decode again to the same record.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pfltd_records.h"
#include "vsk/pfltd.h"

namespace {

void* Alloc(size_t size, void*) { return std::malloc(size); }
void Free(void* p, void*) { std::free(p); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto n = static_cast<uint32_t>(size);
  auto* in = static_cast<uint8_t*>(std::malloc(n == 0 ? 1 : n));
  if (n != 0) std::memcpy(in, data, n);
  pfltd_vsk_data_t first{};
  const int32_t used = idr_decode_pfltd_vsk_data_0(&first, in, n, Alloc, nullptr);
  if (used > static_cast<int32_t>(n) || used < -2) std::abort();
  if (used >= 0) {
    std::vector<uint8_t> again(idr_encode_pfltd_vsk_data_0(&first, nullptr, 0));
    idr_encode_pfltd_vsk_data_0(&first, again.data(), static_cast<uint32_t>(again.size()));
    pfltd_vsk_data_t second{};
    if (idr_decode_pfltd_vsk_data_0(&second, again.data(), static_cast<uint32_t>(again.size()),
                                    Alloc, nullptr) != static_cast<int32_t>(again.size())) {
      std::abort();
    }
    if (!vsk::test::Diff(first, second).empty()) std::abort();
    idr_release_pfltd_vsk_data_0(&second, Free, nullptr);
  }
  idr_release_pfltd_vsk_data_0(&first, Free, nullptr);
  std::free(in);
  return 0;
}
