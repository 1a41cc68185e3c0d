// Records of the filter daemon's data for the tests, the fuzz seed corpus and the
// benchmark: a record with every field set (texts, numbers and lists of varied lengths, so
// that every padding case occurs), its comparison, counting allocators, and the text of a
// stored filter rule built field by field.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "vsk/pfltd.h"

namespace vsk::test {

// Owns the texts and lists a built record points at.
class FullRecord {
 public:
  // `salt` varies the contents so that different records differ.
  explicit FullRecord(int salt = 0) {
    for (const int tag : kTextTags) {
      std::string text = "text";
      text += std::to_string(tag);
      text.append(static_cast<size_t>((tag + salt) % 7), 'x');
      Text(tag) = Keep(std::move(text));
    }
    for (const int tag : kNumberTags) {
      Number(tag) = 0x01000000u * static_cast<uint32_t>(tag) + static_cast<uint32_t>(salt) + 0xA5u;
    }
    int n = 0;
    for (const int tag : kListTags) {
      auto& items = lists_.emplace_back();
      for (int i = 0; i <= (tag + n++) % 4; ++i) {
        std::string text = "l";
        text += std::to_string(tag);
        text += '.';
        text.append(static_cast<size_t>(i), 'y');
        items.push_back(Keep(std::move(text)));
      }
      List(tag) = {items.data(), static_cast<uint32_t>(items.size()), 0};
    }
  }
  pfltd_vsk_data_t record{};

  static constexpr int kTextTags[14] = {1, 4, 7, 9, 11, 14, 17, 20, 23, 26, 29, 31, 33, 35};
  static constexpr int kNumberTags[18] = {2,  5,  37, 38, 8,  10, 12, 39, 15,
                                          40, 18, 21, 24, 27, 30, 32, 34, 36};
  static constexpr int kListTags[8] = {3, 6, 13, 16, 19, 22, 25, 28};

  char*& Text(int tag) { return TextOf(record, tag); }
  uint32_t& Number(int tag) { return NumberOf(record, tag); }
  pfltd_vsk_array_t& List(int tag) { return ListOf(record, tag); }

  static char*& TextOf(pfltd_vsk_data_t& r, int tag);
  static uint32_t& NumberOf(pfltd_vsk_data_t& r, int tag);
  static pfltd_vsk_array_t& ListOf(pfltd_vsk_data_t& r, int tag);

 private:
  char* Keep(std::string s) { return texts_.emplace_back(std::move(s)).data(); }
  std::deque<std::string> texts_;
  std::deque<std::vector<char*>> lists_;
};

#define VSK_TAG_CASE(tag) \
  case tag:               \
    return r.t##tag;
inline char*& FullRecord::TextOf(pfltd_vsk_data_t& r, int tag) {
  switch (tag) {
    VSK_TAG_CASE(1)
    VSK_TAG_CASE(4) VSK_TAG_CASE(7) VSK_TAG_CASE(9) VSK_TAG_CASE(11) VSK_TAG_CASE(14)
        VSK_TAG_CASE(17) VSK_TAG_CASE(20) VSK_TAG_CASE(23) VSK_TAG_CASE(26) VSK_TAG_CASE(29)
            VSK_TAG_CASE(31) VSK_TAG_CASE(33) default : return r.t35;
  }
}
inline uint32_t& FullRecord::NumberOf(pfltd_vsk_data_t& r, int tag) {
  switch (tag) {
    VSK_TAG_CASE(2)
    VSK_TAG_CASE(5) VSK_TAG_CASE(37) VSK_TAG_CASE(38) VSK_TAG_CASE(8) VSK_TAG_CASE(10)
        VSK_TAG_CASE(12) VSK_TAG_CASE(39) VSK_TAG_CASE(15) VSK_TAG_CASE(40) VSK_TAG_CASE(18)
            VSK_TAG_CASE(21) VSK_TAG_CASE(24) VSK_TAG_CASE(27) VSK_TAG_CASE(30) VSK_TAG_CASE(32)
                VSK_TAG_CASE(34) default : return r.t36;
  }
}
inline pfltd_vsk_array_t& FullRecord::ListOf(pfltd_vsk_data_t& r, int tag) {
  switch (tag) {
    VSK_TAG_CASE(3)
    VSK_TAG_CASE(6) VSK_TAG_CASE(13) VSK_TAG_CASE(16) VSK_TAG_CASE(19) VSK_TAG_CASE(22)
        VSK_TAG_CASE(25) default : return r.t28;
  }
}
#undef VSK_TAG_CASE

// Field-by-field difference of two records, "" when equal. Null and "" texts differ.
inline std::string Diff(pfltd_vsk_data_t a, pfltd_vsk_data_t b) {
  std::string out;
  auto text = [](const char* s) {
    return s != nullptr ? "\"" + std::string(s) + "\"" : std::string("null");
  };
  for (int tag : FullRecord::kTextTags) {
    if (text(FullRecord::TextOf(a, tag)) != text(FullRecord::TextOf(b, tag)))
      out += " text" + std::to_string(tag);
  }
  for (int tag : FullRecord::kNumberTags) {
    if (FullRecord::NumberOf(a, tag) != FullRecord::NumberOf(b, tag))
      out += " number" + std::to_string(tag);
  }
  for (int tag : FullRecord::kListTags) {
    const auto& la = FullRecord::ListOf(a, tag);
    const auto& lb = FullRecord::ListOf(b, tag);
    bool same = la.count == lb.count;
    for (uint32_t i = 0; same && i < la.count; ++i) same = text(la.items[i]) == text(lb.items[i]);
    if (!same) out += " list" + std::to_string(tag);
  }
  return out;
}

// malloc and free through the codec's context: counts live blocks, and can fail the Nth
// allocation.
struct CountingHeap {
  int live = 0;
  int allocations = 0;
  int fail_at = -1;  // 0-based allocation to fail, -1 never

  static void* Alloc(size_t size, void* ctx) {
    auto* h = static_cast<CountingHeap*>(ctx);
    if (h->allocations++ == h->fail_at) return nullptr;
    ++h->live;
    return std::malloc(size);
  }
  static void Free(void* p, void* ctx) {
    --static_cast<CountingHeap*>(ctx)->live;
    std::free(p);
  }
};

inline std::vector<uint8_t> EncodeTlv(const pfltd_vsk_data_t& r, const uint8_t* mask = nullptr) {
  std::vector<uint8_t> out(tlv_encode_pfltd_vsk_data(&r, mask, nullptr, 0));
  tlv_encode_pfltd_vsk_data(&r, mask, out.data(), static_cast<uint32_t>(out.size()));
  return out;
}

inline std::vector<uint8_t> EncodeIdr(const pfltd_vsk_data_t& r) {
  std::vector<uint8_t> out(idr_encode_pfltd_vsk_data_0(&r, nullptr, 0));
  idr_encode_pfltd_vsk_data_0(&r, out.data(), static_cast<uint32_t>(out.size()));
  return out;
}

// The bytes of one rule, written field by field as the firewall daemon stores them.
struct RuleText {
  uint8_t family = 1, action = 0;
  std::vector<uint8_t> src, dst;  // 4 or 16 bytes, network order
  uint8_t src_prefix = 0, dst_prefix = 0, protocol = 0;
  uint16_t src_port = 0, dst_port = 0;
  uint8_t src_op = 0, dst_op = 0;
  std::string forwarding_class, policer;

  std::string Hex() const {
    std::vector<uint8_t> b = {family, action, 0xAA, 0xBB};
    const size_t n = family == 3 ? 16 : 4;
    for (const auto* a : {&src, &dst}) {
      std::vector<uint8_t> addr = *a;
      addr.resize(n);
      b.insert(b.end(), addr.begin(), addr.end());
    }
    b.insert(b.end(), {src_prefix, dst_prefix, protocol, 0xCC, static_cast<uint8_t>(src_port >> 8),
                       static_cast<uint8_t>(src_port), static_cast<uint8_t>(dst_port >> 8),
                       static_cast<uint8_t>(dst_port), src_op, dst_op, 0xDD, 0xDD, 0xEE, 0xFF});
    for (const std::string* name : {&forwarding_class, &policer}) {
      b.push_back(static_cast<uint8_t>(name->size()));
      b.insert(b.end(), name->begin(), name->end());
    }
    std::string text;
    char pair[3];
    for (uint8_t byte : b) {
      std::snprintf(pair, sizeof(pair), "%02x", byte);
      text += pair;
    }
    return text;
  }
};

}  // namespace vsk::test
