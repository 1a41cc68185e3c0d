// Records of the filter daemon's data for the tests, the fuzz seed corpus and the
// benchmark: a record with every field set (texts, numbers and lists of varied lengths, so
// that every padding case occurs), its comparison, counting allocators, and the text of a
// stored filter rule built field by field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "vsk/pfltd.h"

namespace vsk::test {

// Where each field of a kind lies, by tag.
struct TagAt {
  int tag;
  size_t offset;
};
#define VSK_AT(tag) \
  TagAt { tag, offsetof(pfltd_vsk_data_t, t##tag) }
inline constexpr TagAt kTexts[] = {VSK_AT(1),  VSK_AT(4),  VSK_AT(7),  VSK_AT(9),  VSK_AT(11),
                                   VSK_AT(14), VSK_AT(17), VSK_AT(20), VSK_AT(23), VSK_AT(26),
                                   VSK_AT(29), VSK_AT(31), VSK_AT(33), VSK_AT(35)};
inline constexpr TagAt kNumbers[] = {VSK_AT(2),  VSK_AT(5),  VSK_AT(37), VSK_AT(38), VSK_AT(8),
                                     VSK_AT(10), VSK_AT(12), VSK_AT(39), VSK_AT(15), VSK_AT(40),
                                     VSK_AT(18), VSK_AT(21), VSK_AT(24), VSK_AT(27), VSK_AT(30),
                                     VSK_AT(32), VSK_AT(34), VSK_AT(36)};
inline constexpr TagAt kLists[] = {VSK_AT(3),  VSK_AT(6),  VSK_AT(13), VSK_AT(16),
                                   VSK_AT(19), VSK_AT(22), VSK_AT(25), VSK_AT(28)};
#undef VSK_AT

template <typename T>
T& FieldAt(pfltd_vsk_data_t& r, const TagAt& at) {
  return *reinterpret_cast<T*>(reinterpret_cast<char*>(&r) + at.offset);
}

// A record with every field set; owns the texts and lists it points at. `salt` varies
// the contents so that different records differ.
class FullRecord {
 public:
  explicit FullRecord(int salt = 0) {
    for (const TagAt& at : kTexts) {
      FieldAt<char*>(record, at) =
          Keep(std::to_string(at.tag).append(static_cast<size_t>((at.tag + salt) % 7), 'x'));
    }
    for (const TagAt& at : kNumbers) {
      FieldAt<uint32_t>(record, at) =
          0x01000000u * static_cast<uint32_t>(at.tag) + 0xA5u + static_cast<uint32_t>(salt);
    }
    for (const TagAt& at : kLists) {
      auto& items = lists_.emplace_back();
      for (int i = 0; i <= (at.tag + salt) % 4; ++i) {
        items.push_back(Keep(std::to_string(at.tag).append(static_cast<size_t>(i), 'y')));
      }
      FieldAt<pfltd_vsk_array_t>(record, at) = {items.data(), static_cast<uint32_t>(items.size()),
                                                0};
    }
  }
  pfltd_vsk_data_t record{};

 private:
  char* Keep(std::string s) { return texts_.emplace_back(std::move(s)).data(); }
  std::deque<std::string> texts_;
  std::deque<std::vector<char*>> lists_;
};

// The tags of the fields in which two records differ, "" when equal. Null and "" differ.
inline std::string Diff(pfltd_vsk_data_t a, pfltd_vsk_data_t b) {
  auto text = [](const char* s) { return s != nullptr ? std::string(s) + '$' : std::string(); };
  std::string out;
  for (const TagAt& at : kTexts) {
    if (text(FieldAt<char*>(a, at)) != text(FieldAt<char*>(b, at)))
      out += ' ' + std::to_string(at.tag);
  }
  for (const TagAt& at : kNumbers) {
    if (FieldAt<uint32_t>(a, at) != FieldAt<uint32_t>(b, at)) out += ' ' + std::to_string(at.tag);
  }
  for (const TagAt& at : kLists) {
    const auto& la = FieldAt<pfltd_vsk_array_t>(a, at);
    const auto& lb = FieldAt<pfltd_vsk_array_t>(b, at);
    bool same = la.count == lb.count;
    for (uint32_t i = 0; same && i < la.count; ++i) same = text(la.items[i]) == text(lb.items[i]);
    if (!same) out += ' ' + std::to_string(at.tag);
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
