// The table-driven codec: one walk over a schema's field descriptors for each of encode,
// decode and release, in the tagged and the positional form.
#include "libvsk/sidedata/field_codec.h"

#include <endian.h>

#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/byte_writer.h"
#include "libvsk/store/records.h"

namespace vsk::sidedata {
namespace {

using base::ByteReader;
using base::ByteWriter;
using store::RecordWriter;

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

// Zero bytes up to a multiple of 4 of the running offset, written only when all of them
// fit.
void Pad(RecordWriter& out) {
  const uint32_t n = static_cast<uint32_t>(RoundUp4(out.total()) - out.total());
  ByteWriter piece;
  if (n != 0 && out.Reserve(n, &piece)) piece.Bytes(nullptr, n);
}

// Big-endian integers of 2 or 4 bytes on the wire.
void PutBe(ByteWriter& out, uint32_t value, uint32_t width) {
  if (width == 2) {
    out.Put<uint16_t>(htobe16(static_cast<uint16_t>(value)));
  } else {
    out.Put<uint32_t>(htobe32(value));
  }
}

bool GetBe(ByteReader& in, uint32_t width, uint32_t* out) {
  if (width == 2) {
    uint16_t v;
    if (!in.Get(&v)) return false;
    *out = be16toh(v);
    return true;
  }
  uint32_t v;
  if (!in.Get(&v)) return false;
  *out = be32toh(v);
  return true;
}

// Moves `in` on to `pos`; false when that lies past the end.
bool SkipTo(ByteReader& in, uint64_t pos) { return pos >= in.pos() && in.Skip(pos - in.pos()); }

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

// REQUIRES: `out` has room for the value TaggedValueSize gave.
void WriteTaggedValue(const FieldDesc& f, const void* record, ByteWriter& out) {
  switch (f.kind) {
    case FieldKind::kString: {
      const char* s = Member<char*>(record, f);
      out.Bytes(s, std::strlen(s) + 1);
      break;
    }
    case FieldKind::kU32:
      PutBe(out, Member<uint32_t>(record, f), 4);
      break;
    case FieldKind::kArray: {
      const auto& a = Member<pfltd_vsk_array_t>(record, f);
      for (uint32_t i = 0; i < ItemCount(a); ++i)
        out.Bytes(Item(a, i), std::strlen(Item(a, i)) + 1);
      break;
    }
    case FieldKind::kBlob: {
      const auto& b = Member<vsk_tlv_blob_t>(record, f);
      if (b.data != nullptr) out.Bytes(b.data, b.len);
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
int32_t ReadTaggedValue(const FieldDesc& f, void* record, ByteReader value, vsk_codec_alloc_t alloc,
                        void* ctx) {
  const auto len = static_cast<uint32_t>(value.size());
  const uint8_t* v = nullptr;
  value.Take(len, &v);
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
      ByteReader number(v, len);
      return GetBe(number, 4, &Member<uint32_t>(record, f)) ? 0 : kMalformed;
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
int32_t ReadPositionalText(ByteReader& in, char** out, bool pad, bool need_nul,
                           vsk_codec_alloc_t alloc, void* ctx) {
  if (in.empty()) return kMalformed;
  const size_t start_pos = in.pos();
  const uint8_t* start = in.here();
  const char* text = nullptr;
  size_t n = 0;
  if (!in.CString(&text, &n)) {
    if (need_nul) return kMalformed;
    n = in.remaining() - 1;
  }
  if (alloc == nullptr) return kNoMemory;
  *out = CopyText(start, n, n + 1, alloc, ctx);
  if (*out == nullptr) return kNoMemory;
  const uint64_t end = uint64_t{start_pos} + n + 1;
  // Padding that runs past the input leaves nothing for the field after the text.
  return SkipTo(in, pad ? RoundUp4(end) : end) ? 0 : kMalformed;
}

}  // namespace

uint32_t EncodeTagged(const Schema& schema, const void* record, const uint8_t* mask,
                      uint8_t* buffer, uint32_t size) {
  RecordWriter out(buffer, size);
  const uint32_t hw = schema.header_width;
  for (size_t i = 0; i < schema.fields.size(); ++i) {
    const FieldDesc& f = schema.fields[i];
    if (!Selected(mask, i)) continue;
    const Value v = TaggedValueSize(f, record);
    if (!v.present) continue;
    ByteWriter piece;
    if (out.Reserve(static_cast<uint32_t>(2 * hw + v.length), &piece)) {
      PutBe(piece, f.tag, hw);
      // A value longer than the length field holds keeps only the low bits of its length.
      PutBe(piece, static_cast<uint32_t>(v.length), hw);
      WriteTaggedValue(f, record, piece);
    }
    if (f.kind != FieldKind::kU32) Pad(out);
  }
  return out.total();
}

int32_t DecodeTagged(const Schema& schema, void* record, uint8_t* mask, const uint8_t* buffer,
                     uint32_t size, vsk_codec_alloc_t alloc, void* context) {
  std::memset(record, 0, schema.record_size);
  if (mask != nullptr) std::memset(mask, 0, schema.mask_bytes);
  const uint32_t hw = schema.header_width;
  uint64_t seen = 0;
  ByteReader in(buffer, size);
  for (;;) {
    const auto start = static_cast<int32_t>(in.pos());
    uint32_t tag = 0;
    uint32_t length = 0;
    ByteReader value;
    // A header or a value that does not fit ends the decode before the element.
    if (!GetBe(in, hw, &tag) || !GetBe(in, hw, &length) || !in.Slice(length, &value)) {
      return start;
    }
    const size_t end = in.pos();
    const int index = tag < schema.by_tag.size() ? schema.by_tag[tag] : -1;
    if (index >= 0) {
      const FieldDesc& f = schema.fields[index];
      const bool already = ((seen >> index) & 1) != 0;
      const bool keep_first =
          schema.repeat == RepeatRule::kMaskKeepsFirst && mask != nullptr && Selected(mask, index);
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
    if (!SkipTo(in, RoundUp4(end))) return static_cast<int32_t>(end);
  }
}

uint32_t EncodePositional(const Schema& schema, const void* record, uint8_t* buffer,
                          uint32_t size) {
  RecordWriter out(buffer, size);
  ByteWriter piece;
  auto put_text = [&out, &piece](const char* s) {
    const auto n = static_cast<uint32_t>(std::strlen(s) + 1);
    if (out.Reserve(n, &piece)) piece.Bytes(s, n);
  };
  for (const FieldDesc& f : schema.fields) {
    switch (f.kind) {
      case FieldKind::kString: {
        const char* s = Member<char*>(record, f);
        put_text(s != nullptr ? s : "");
        Pad(out);
        break;
      }
      case FieldKind::kU32:
        if (out.Reserve(4, &piece)) PutBe(piece, Member<uint32_t>(record, f), 4);
        break;
      case FieldKind::kArray: {
        const auto& a = Member<pfltd_vsk_array_t>(record, f);
        if (out.Reserve(4, &piece)) PutBe(piece, ItemCount(a), 4);
        for (uint32_t i = 0; i < ItemCount(a); ++i) put_text(Item(a, i));
        break;
      }
      case FieldKind::kBlob:
        break;  // no positional form
    }
  }
  return out.total();
}

int32_t DecodePositional(const Schema& schema, void* record, const uint8_t* buffer, uint32_t size,
                         vsk_codec_alloc_t alloc, void* context) {
  std::memset(record, 0, schema.record_size);
  ByteReader in(buffer, size);
  for (const FieldDesc& f : schema.fields) {
    int32_t r = 0;
    switch (f.kind) {
      case FieldKind::kString:
        r = ReadPositionalText(in, &Member<char*>(record, f), true, false, alloc, context);
        break;
      case FieldKind::kU32:
        r = GetBe(in, 4, &Member<uint32_t>(record, f)) ? 0 : kMalformed;
        break;
      case FieldKind::kArray: {
        auto& a = Member<pfltd_vsk_array_t>(record, f);
        uint32_t count = 0;
        // Every text takes at least its NUL: a count above the bytes left cannot be met.
        if (!GetBe(in, 4, &count) || count > in.remaining()) return kMalformed;
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

uint32_t EncodeTagged(const UnionSchema& schema, const void* record, const uint8_t* mask,
                      uint8_t* buffer, uint32_t size) {
  const int32_t type = *static_cast<const int32_t*>(record);
  const Schema* member = MemberOf(schema, type);
  const void* body = static_cast<const uint8_t*>(record) + schema.member_offset;
  if (buffer == nullptr || size < 4) {
    return 4 + (member != nullptr ? EncodeTagged(*member, body, mask, nullptr, 0) : 0);
  }
  ByteWriter head(buffer, 4);
  PutBe(head, static_cast<uint32_t>(type), 4);
  return 4 + (member != nullptr ? EncodeTagged(*member, body, mask, buffer + 4, size - 4) : 0);
}

int32_t DecodeTagged(const UnionSchema& schema, void* record, uint8_t* mask, const uint8_t* buffer,
                     uint32_t size, vsk_codec_alloc_t alloc, void* context) {
  Discriminator(record) = -1;
  ByteReader in(buffer, size);
  uint32_t type = 0;
  if (!GetBe(in, 4, &type)) return 0;
  const Schema* member = MemberOf(schema, static_cast<int32_t>(type));
  if (member == nullptr) return kUnknownDiscriminator;
  Discriminator(record) = static_cast<int32_t>(type);
  const int32_t r = DecodeTagged(*member, static_cast<uint8_t*>(record) + schema.member_offset,
                                 mask, buffer + 4, size - 4, alloc, context);
  return r >= 0 ? r + 4 : r;
}

void Release(const UnionSchema& schema, void* record, vsk_codec_free_t free_fn, void* context) {
  if (const Schema* member = MemberOf(schema, Discriminator(record))) {
    Release(*member, static_cast<uint8_t*>(record) + schema.member_offset, free_fn, context);
  }
}

}  // namespace vsk::sidedata
