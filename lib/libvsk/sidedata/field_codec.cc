// The table-driven codec: one walk over a schema's field descriptors for each of encode,
// decode and release, in the tagged and the positional form.
#include "libvsk/sidedata/field_codec.h"

#include <cstring>

#include "libvsk/sidedata/wire_reader.h"

namespace vsk::sidedata {
namespace {

bool Selected(const uint8_t* mask, size_t bit) {
  return mask == nullptr || ((mask[bit / 8] >> (bit % 8)) & 1) != 0;
}

void SetBit(uint8_t* mask, size_t bit) { mask[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8)); }

template <typename T>
T& Member(void* record, const FieldDesc& f) {
  return *reinterpret_cast<T*>(static_cast<uint8_t*>(record) + f.offset);
}
template <typename T>
const T& Member(const void* record, const FieldDesc& f) {
  return *reinterpret_cast<const T*>(static_cast<const uint8_t*>(record) + f.offset);
}

uint64_t RoundUp4(uint64_t n) { return (n + 3) & ~uint64_t{3}; }

// A list's texts, with a null list read as empty and a null text as "".
uint32_t ItemCount(const pfltd_vsk_array_t& a) { return a.items != nullptr ? a.count : 0; }
const char* Item(const pfltd_vsk_array_t& a, uint32_t i) {
  return a.items[i] != nullptr ? a.items[i] : "";
}

// The two-pass writer: counts every byte asked for, writes only what fits.
class WireWriter {
 public:
  WireWriter(uint8_t* buffer, uint32_t size) : out_(buffer), size_(buffer ? size : 0) {}

  // Room for `n` bytes at the end, or null when they do not fit; the end moves on anyway.
  uint8_t* Reserve(uint64_t n) {
    uint8_t* at = end_ + n <= size_ ? out_ + end_ : nullptr;
    end_ += n;
    return at;
  }
  // Zero bytes up to a multiple of 4, written only when all of them fit.
  void Pad() {
    const uint64_t padded = RoundUp4(end_);
    if (padded <= size_) std::memset(out_ + end_, 0, padded - end_);
    end_ = padded;
  }
  uint32_t size_needed() const { return end_ > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end_); }

 private:
  uint8_t* out_;
  uint64_t size_;
  uint64_t end_ = 0;
};

void PutBe(uint8_t* at, uint32_t value, uint32_t width) {
  for (uint32_t i = 0; i < width; ++i) at[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
}

bool GetBe(WireReader& in, uint32_t width, uint32_t* out) {
  if (width == 2) {
    uint16_t v;
    if (!in.GetBe16(&v)) return false;
    *out = v;
    return true;
  }
  return in.GetBe32(out);
}

// The value bytes of one tagged field, or null for a field that writes no element.
struct Value {
  bool present = false;
  uint64_t length = 0;
};

Value TaggedValueSize(const FieldDesc& f, const void* record) {
  switch (f.kind) {
    case FieldKind::kString: {
      const char* s = Member<char*>(record, f);
      return s != nullptr ? Value{true, std::strlen(s) + 1} : Value{};
    }
    case FieldKind::kU32:
      return Value{true, 4};
    case FieldKind::kArray: {
      const auto& a = Member<pfltd_vsk_array_t>(record, f);
      uint64_t total = 0;
      for (uint32_t i = 0; i < ItemCount(a); ++i) total += std::strlen(Item(a, i)) + 1;
      return Value{true, total};
    }
    case FieldKind::kBlob: {
      const auto& b = Member<vsk_tlv_blob_t>(record, f);
      return Value{true, b.data != nullptr ? b.len : 0u};
    }
  }
  return Value{};
}

void WriteTaggedValue(const FieldDesc& f, const void* record, uint8_t* at) {
  switch (f.kind) {
    case FieldKind::kString: {
      const char* s = Member<char*>(record, f);
      std::memcpy(at, s, std::strlen(s) + 1);
      break;
    }
    case FieldKind::kU32:
      PutBe(at, Member<uint32_t>(record, f), 4);
      break;
    case FieldKind::kArray: {
      const auto& a = Member<pfltd_vsk_array_t>(record, f);
      for (uint32_t i = 0; i < ItemCount(a); ++i) {
        const size_t n = std::strlen(Item(a, i)) + 1;
        std::memcpy(at, Item(a, i), n);
        at += n;
      }
      break;
    }
    case FieldKind::kBlob: {
      const auto& b = Member<vsk_tlv_blob_t>(record, f);
      if (b.data != nullptr && b.len != 0) std::memcpy(at, b.data, b.len);
      break;
    }
  }
}

// A copy of `n` bytes of `from` with a NUL after them, from `alloc`; null when it fails.
char* CopyText(const uint8_t* from, size_t n, size_t room, vsk_codec_alloc_t alloc, void* ctx) {
  auto* s = static_cast<char*>(alloc(room, ctx));
  if (s == nullptr) return nullptr;
  std::memcpy(s, from, n);
  s[n] = '\0';
  return s;
}

// Allocates a zeroed list of `count` text pointers into `a`. False when allocation fails.
bool AllocItems(pfltd_vsk_array_t& a, uint32_t count, vsk_codec_alloc_t alloc, void* ctx) {
  auto* items = static_cast<char**>(alloc(sizeof(char*) * count, ctx));
  if (items == nullptr) return false;
  std::memset(items, 0, sizeof(char*) * count);
  a.items = items;
  a.count = count;
  return true;
}

// Reads the value of one tagged element into its field.
int32_t ReadTaggedValue(const FieldDesc& f, void* record, const WireReader& value,
                        vsk_codec_alloc_t alloc, void* ctx) {
  const uint8_t* v = value.here();
  const uint32_t len = value.size();
  switch (f.kind) {
    case FieldKind::kString: {
      char*& s = Member<char*>(record, f);
      // An empty value cannot hold even the NUL: no encoder makes one.
      if (s != nullptr || len == 0) return kMalformed;
      if (alloc == nullptr) return kNoMemory;
      s = CopyText(v, strnlen(reinterpret_cast<const char*>(v), len - 1), len, alloc, ctx);
      return s != nullptr ? 0 : kNoMemory;
    }
    case FieldKind::kU32: {
      WireReader r = value;
      return r.GetBe32(&Member<uint32_t>(record, f)) ? 0 : kMalformed;
    }
    case FieldKind::kArray: {
      auto& a = Member<pfltd_vsk_array_t>(record, f);
      if (a.items != nullptr) return kMalformed;
      // Texts end at each NUL; trailing bytes without one are a last text.
      uint32_t count = 0;
      for (uint32_t i = 0; i < len; ++i) {
        if (v[i] == 0 || i + 1 == len) ++count;
      }
      if (count == 0) return 0;
      if (alloc == nullptr || !AllocItems(a, count, alloc, ctx)) return kNoMemory;
      uint32_t at = 0;
      for (uint32_t i = 0; i < count; ++i) {
        const size_t n = strnlen(reinterpret_cast<const char*>(v + at), len - at);
        a.items[i] = CopyText(v + at, n, n + 1, alloc, ctx);
        if (a.items[i] == nullptr) return kNoMemory;
        at += static_cast<uint32_t>(n) + (at + n < len ? 1 : 0);
      }
      return 0;
    }
    case FieldKind::kBlob: {
      auto& b = Member<vsk_tlv_blob_t>(record, f);
      if (len == 0) return 0;
      if (alloc == nullptr) return kNoMemory;
      b.data = static_cast<uint8_t*>(alloc(len, ctx));
      if (b.data == nullptr) return kNoMemory;
      std::memcpy(b.data, v, len);
      b.len = len;
      return 0;
    }
  }
  return kMalformed;
}

// One positional text: up to its NUL, or all but the last remaining byte when there is
// none. `pad` moves on to a multiple of 4 afterwards.
int32_t ReadPositionalText(WireReader& in, char** out, bool pad, bool need_nul,
                           vsk_codec_alloc_t alloc, void* ctx) {
  if (in.remaining() == 0) return kMalformed;
  const auto* nul = static_cast<const uint8_t*>(std::memchr(in.here(), 0, in.remaining()));
  if (nul == nullptr && need_nul) return kMalformed;
  const uint32_t n = nul != nullptr ? static_cast<uint32_t>(nul - in.here()) : in.remaining() - 1;
  if (alloc == nullptr) return kNoMemory;
  *out = CopyText(in.here(), n, n + 1, alloc, ctx);
  if (*out == nullptr) return kNoMemory;
  const uint64_t end = uint64_t{in.pos()} + n + 1;
  // Padding that runs past the input leaves nothing for the field after the text.
  return in.Seek(pad ? RoundUp4(end) : end) ? 0 : kMalformed;
}

}  // namespace

uint32_t EncodeTagged(const Schema& schema, const void* record, const uint8_t* mask,
                      uint8_t* buffer, uint32_t size) {
  WireWriter out(buffer, size);
  const uint32_t hw = schema.header_width;
  for (size_t i = 0; i < schema.fields.size(); ++i) {
    const FieldDesc& f = schema.fields[i];
    if (!Selected(mask, i)) continue;
    const Value v = TaggedValueSize(f, record);
    if (!v.present) continue;
    if (uint8_t* at = out.Reserve(2 * hw + v.length)) {
      PutBe(at, f.tag, hw);
      // A list longer than the length field holds keeps only the low bits of its length.
      PutBe(at + hw, static_cast<uint32_t>(v.length), hw);
      WriteTaggedValue(f, record, at + 2 * hw);
    }
    if (f.kind != FieldKind::kU32) out.Pad();
  }
  return out.size_needed();
}

int32_t DecodeTagged(const Schema& schema, void* record, uint8_t* mask, const uint8_t* buffer,
                     uint32_t size, vsk_codec_alloc_t alloc, void* context) {
  std::memset(record, 0, schema.record_size);
  if (mask != nullptr) std::memset(mask, 0, schema.mask_bytes);
  const uint32_t hw = schema.header_width;
  uint64_t seen = 0;
  WireReader in(buffer, size);
  for (;;) {
    const uint32_t start = in.pos();
    uint32_t tag = 0;
    uint32_t length = 0;
    WireReader value(nullptr, 0);
    // A header or a value that does not fit ends the decode before the element.
    if (!GetBe(in, hw, &tag) || !GetBe(in, hw, &length) || !in.Slice(length, &value)) {
      return static_cast<int32_t>(start);
    }
    const uint32_t end = in.pos();
    const int index = tag < schema.by_tag.size() ? schema.by_tag[tag] : -1;
    if (index >= 0) {
      const FieldDesc& f = schema.fields[index];
      const bool already = ((seen >> index) & 1) != 0;
      const bool keep_first = schema.repeat == RepeatRule::kMaskKeepsFirst && mask != nullptr &&
                              Selected(mask, index);
      if (already && schema.repeat == RepeatRule::kAlwaysMalformed) return kMalformed;
      if (!keep_first) {
        const int32_t r = ReadTaggedValue(f, record, value, alloc, context);
        if (r < 0) return r;
        seen |= uint64_t{1} << index;
        if (mask != nullptr) SetBit(mask, index);
      }
    }
    // The next element starts on a multiple of 4; when that lies past the input the
    // decode ends at this element's end.
    if (!in.Seek(RoundUp4(end))) return static_cast<int32_t>(end);
  }
}

uint32_t EncodePositional(const Schema& schema, const void* record, uint8_t* buffer,
                          uint32_t size) {
  WireWriter out(buffer, size);
  auto put_text = [&out](const char* s) {
    const size_t n = std::strlen(s) + 1;
    if (uint8_t* at = out.Reserve(n)) std::memcpy(at, s, n);
  };
  for (const FieldDesc& f : schema.fields) {
    switch (f.kind) {
      case FieldKind::kString: {
        const char* s = Member<char*>(record, f);
        put_text(s != nullptr ? s : "");
        out.Pad();
        break;
      }
      case FieldKind::kU32:
        if (uint8_t* at = out.Reserve(4)) PutBe(at, Member<uint32_t>(record, f), 4);
        break;
      case FieldKind::kArray: {
        const auto& a = Member<pfltd_vsk_array_t>(record, f);
        if (uint8_t* at = out.Reserve(4)) PutBe(at, ItemCount(a), 4);
        for (uint32_t i = 0; i < ItemCount(a); ++i) put_text(Item(a, i));
        break;
      }
      case FieldKind::kBlob:
        break;  // no positional form
    }
  }
  return out.size_needed();
}

int32_t DecodePositional(const Schema& schema, void* record, const uint8_t* buffer,
                         uint32_t size, vsk_codec_alloc_t alloc, void* context) {
  std::memset(record, 0, schema.record_size);
  WireReader in(buffer, size);
  for (const FieldDesc& f : schema.fields) {
    int32_t r = 0;
    switch (f.kind) {
      case FieldKind::kString:
        r = ReadPositionalText(in, &Member<char*>(record, f), true, false, alloc, context);
        break;
      case FieldKind::kU32:
        r = in.GetBe32(&Member<uint32_t>(record, f)) ? 0 : kMalformed;
        break;
      case FieldKind::kArray: {
        auto& a = Member<pfltd_vsk_array_t>(record, f);
        uint32_t count = 0;
        // Every text takes at least its NUL: a count above the bytes left cannot be met.
        if (!in.GetBe32(&count) || count > in.remaining()) return kMalformed;
        if (count == 0) break;
        if (alloc == nullptr || !AllocItems(a, count, alloc, context)) return kNoMemory;
        for (uint32_t i = 0; i < count && r == 0; ++i) {
          r = ReadPositionalText(in, &a.items[i], false, true, alloc, context);
        }
        break;
      }
      case FieldKind::kBlob:
        r = kMalformed;
        break;
    }
    if (r < 0) return r;
  }
  return static_cast<int32_t>(in.pos());
}

void Release(const Schema& schema, void* record, vsk_codec_free_t free_fn, void* context) {
  for (const FieldDesc& f : schema.fields) {
    switch (f.kind) {
      case FieldKind::kString:
        if (char* s = Member<char*>(record, f)) free_fn(s, context);
        break;
      case FieldKind::kU32:
        break;
      case FieldKind::kArray: {
        const auto& a = Member<pfltd_vsk_array_t>(record, f);
        if (a.items == nullptr) break;
        for (uint32_t i = 0; i < a.count; ++i) {
          if (a.items[i] != nullptr) free_fn(a.items[i], context);
        }
        free_fn(a.items, context);
        break;
      }
      case FieldKind::kBlob:
        if (uint8_t* d = Member<vsk_tlv_blob_t>(record, f).data) free_fn(d, context);
        break;
    }
  }
}

namespace {

// The member a union's discriminator picks, or null for an unknown one.
const Schema* MemberOf(const UnionSchema& schema, int32_t type) {
  return type >= 0 && static_cast<size_t>(type) < schema.members.size() ? schema.members[type]
                                                                        : nullptr;
}

int32_t& Discriminator(void* record) { return *static_cast<int32_t*>(record); }

}  // namespace

uint32_t EncodeUnion(const UnionSchema& schema, const void* record, const uint8_t* mask,
                     uint8_t* buffer, uint32_t size) {
  const int32_t type = *static_cast<const int32_t*>(record);
  const Schema* member = MemberOf(schema, type);
  const void* body = static_cast<const uint8_t*>(record) + schema.member_offset;
  if (buffer == nullptr || size < 4) {
    return 4 + (member != nullptr ? EncodeTagged(*member, body, mask, nullptr, 0) : 0);
  }
  PutBe(buffer, static_cast<uint32_t>(type), 4);
  return 4 + (member != nullptr ? EncodeTagged(*member, body, mask, buffer + 4, size - 4) : 0);
}

int32_t DecodeUnion(const UnionSchema& schema, void* record, uint8_t* mask,
                    const uint8_t* buffer, uint32_t size, vsk_codec_alloc_t alloc,
                    void* context) {
  Discriminator(record) = -1;
  WireReader in(buffer, size);
  uint32_t type = 0;
  if (!in.GetBe32(&type)) return 0;
  const Schema* member = MemberOf(schema, static_cast<int32_t>(type));
  if (member == nullptr) return kUnknownDiscriminator;
  Discriminator(record) = static_cast<int32_t>(type);
  const int32_t r = DecodeTagged(*member, static_cast<uint8_t*>(record) + schema.member_offset,
                                 mask, in.here(), in.remaining(), alloc, context);
  return r >= 0 ? r + 4 : r;
}

void ReleaseUnion(const UnionSchema& schema, void* record, vsk_codec_free_t free_fn,
                  void* context) {
  if (const Schema* member = MemberOf(schema, Discriminator(record))) {
    Release(*member, static_cast<uint8_t*>(record) + schema.member_offset, free_fn, context);
  }
}

}  // namespace vsk::sidedata
