// Writes the seed corpus of the filter daemon's fuzz targets from the tests' records:
//   make_seed_corpus DIR   ->  DIR/pfltd_tlv/, DIR/pfltd_idr/, DIR/adf_rule/
// Run it again when the tests' records change; the corpus is kept in fuzz/corpus/.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "pfltd_records.h"
#include "vsk/pfltd.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

void Write(const fs::path& dir, const std::string& name, uint8_t pick, const Bytes& body,
           bool with_pick = true) {
  fs::create_directories(dir);
  std::ofstream out(dir / name, std::ios::binary);
  if (with_pick) out.put(static_cast<char>(pick));
  out.write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
}

template <typename T, typename Encode>
Bytes Encoded(const T& record, Encode encode) {
  Bytes out(encode(&record, nullptr, nullptr, 0));
  encode(&record, nullptr, out.data(), static_cast<uint32_t>(out.size()));
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  const fs::path root = argv[1];
  using vsk::test::FullRecord;
  for (int salt = 0; salt < 4; ++salt) {
    FullRecord full(salt);
    const std::string n = std::to_string(salt);
    Write(root / "pfltd_tlv", "record" + n, 0, vsk::test::EncodeTlv(full.record));
    Write(root / "pfltd_tlv", "record_masked" + n, 0x80, vsk::test::EncodeTlv(full.record));
    Write(root / "pfltd_idr", "record" + n, 0, vsk::test::EncodeIdr(full.record), false);
  }
  pfltd_vsk_data_t zero{};
  Write(root / "pfltd_tlv", "zero", 0, vsk::test::EncodeTlv(zero));
  Write(root / "pfltd_idr", "zero", 0, vsk::test::EncodeIdr(zero), false);

  uint8_t a[] = {10, 0, 0, 1}, b[] = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const vsk_tlv_blob_t blobs[3] = {{a, 4}, {nullptr, 0}, {b, 16}};
  for (int32_t type = 0; type < 4; ++type) {
    vsk_indexes_t ix{};
    ix.type = type;
    ix.u.ipv4_vr = {blobs[0], blobs[1], blobs[2]};
    vsk_dup_indexes_t dup{};
    dup.type = type;
    dup.u.unnum_intf_pref_ip = {blobs[2], blobs[0]};
    const std::string n = std::to_string(type);
    if (type < 3) Write(root / "pfltd_tlv", "indexes" + n, 1, Encoded(ix, tlv_encode_vsk_indexes));
    Write(root / "pfltd_tlv", "dup_indexes" + n, 2, Encoded(dup, tlv_encode_vsk_dup_indexes));
    // The members alone: picks 3 to 9 in the order of the target's switch.
    const Bytes member(Encoded(dup, tlv_encode_vsk_dup_indexes));
    Write(root / "pfltd_tlv", "member" + n, static_cast<uint8_t>(3 + type),
          Bytes(member.begin() + 4, member.end()));
    Write(root / "pfltd_tlv", "member_" + n, static_cast<uint8_t>(6 + type),
          Bytes(member.begin() + 4, member.end()));
  }

  vsk::test::RuleText v4;
  v4.action = 1;
  v4.src = {10, 1, 0, 0}, v4.src_prefix = 16;
  v4.dst = {192, 0, 2, 1}, v4.dst_prefix = 32;
  v4.protocol = 6, v4.src_port = 1024, v4.src_op = 3, v4.dst_port = 80, v4.dst_op = 2;
  v4.forwarding_class = "expedited", v4.policer = "police-10m";
  vsk::test::RuleText v6 = v4;
  v6.family = 3;
  v6.src = {0x20, 0x01, 0x0d, 0xb8}, v6.dst = {0xfe, 0x80};
  v6.src_op = 1, v6.dst_op = 4;
  vsk::test::RuleText bare;
  for (const auto& [name, rule] :
       {std::pair{"ipv4", v4}, std::pair{"ipv6", v6}, std::pair{"bare", bare}}) {
    const std::string text = rule.Hex();
    Write(root / "adf_rule", name, 0, Bytes(text.begin(), text.end()), false);
  }
  return 0;
}
