// Encoder and decoder of the full interface statistics record.
//
// The decoder walks the value with a ByteReader and never trusts a length it read: every
// TLV is sliced out of the value before a byte of it is read, and no more than a
// section's size is copied into it, so that any value (truncated, corrupt, hostile) ends
// in a status.
#include "libvsk/stats/iflstats_full_codec.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/byte_writer.h"
#include "libvsk/base/trace.h"
#include "libvsk/stats/layout.h"
#include "platform/logging.h"

namespace vsk::stats {

using Set = libstats_iflstats_full_set_t;

const PointerSection kPointerSection[kPointerSections] = {
    {LIBSTATS_TLV_MCAST, sizeof(libstats_ifl_mcast_t), offsetof(Set, mcast), "mcast", "mcast",
     "mcast stats", "mem alloc failed for ifl full mcast stats"},
    {LIBSTATS_TLV_POL, sizeof(libstats_ifl_l2pol_t), offsetof(Set, pol), "pol", "pol", "pol",
     "mem alloc failed for iflstats full l2policy"},
    {LIBSTATS_TLV_AGGR, sizeof(libstats_ifl_agg_t), offsetof(Set, aggr), "agg", "aggr", "aggr",
     "mem alloc failed for iflstats agg"},
    {LIBSTATS_TLV_ML, sizeof(libstats_ifl_ml_t), offsetof(Set, ml), "ml", "ml", "ml",
     "mem alloc failed for iflstats ml"},
    {LIBSTATS_TLV_ES, sizeof(libstats_ifl_es_t), offsetof(Set, es), "es", "es", "es",
     "mem alloc failed for iflstats es"},
    {LIBSTATS_TLV_CE, sizeof(libstats_ifl_ce_t), offsetof(Set, ce), "ce", "ce", "ce",
     "mem alloc failed for iflstats ce"},
    {LIBSTATS_TLV_ATM, sizeof(libstats_ifl_atm_t), offsetof(Set, atm), "atm", "atm", "atm",
     "mem alloc failed for iflstats atm"},
    {LIBSTATS_TLV_Q, sizeof(libstats_ifl_qhdr_t), offsetof(Set, q), "q", "q", "q",
     "mem alloc failed for iflstats queue"},
    {LIBSTATS_TLV_INQ, sizeof(libstats_ifl_qhdr_t), offsetof(Set, inq), "inq", "inq", "inq",
     "mem alloc failed for iflstats inqueue"},
};

namespace {

constexpr uint32_t kGenericSize = sizeof(libstats_ifl_generic_t);
constexpr uint32_t kQcntrSize = sizeof(libstats_ifl_qcntr_t);
constexpr uint32_t kWordSize = sizeof(uint32_t);
constexpr int kMaxTag = LIBSTATS_TLV_MCAST;

constexpr uint32_t TlvLen(uint32_t section) { return kTlvHeader + section; }
constexpr uint32_t RoundUp4(uint32_t n) { return (n + 3u) & ~3u; }

// Copies a section's image from `body` into `out` of `size` bytes. A longer image is cut
// to the section (a conforming writer gives exactly the size), a shorter one leaves zeros.
void CopySection(base::ByteReader* body, void* out, uint32_t size) {
  const size_t n = std::min<size_t>(body->remaining(), size);
  body->Bytes(out, n);
  std::memset(static_cast<uint8_t*>(out) + n, 0, size - n);
}

// A new section of `size` bytes holding the image in `body`. Null when memory is short.
void* NewSection(uint32_t size, base::ByteReader* body) {
  void* p = std::malloc(size);
  if (p != nullptr) CopySection(body, p, size);
  return p;
}

const PointerSection* PointerSectionByTag(uint16_t tag) {
  for (const PointerSection& s : kPointerSection) {
    if (s.tag == tag) return &s;
  }
  return nullptr;
}

// Appends TLVs into a buffer sized by TotalTlvLen. A TLV that does not fit is not
// written, and then shows as a length mismatch.
class TlvWriter {
 public:
  TlvWriter(uint8_t* buf, uint32_t room) : out_(buf, room) {}
  void Put(uint16_t tag, const void* image, uint32_t size) {
    const uint32_t len = TlvLen(size);
    if (out_.room() - out_.pos() < len) {
      overflow_ = true;
      return;
    }
    out_.Put(tag);
    out_.Put(static_cast<uint16_t>(len));
    out_.Bytes(image, size);
  }
  uint32_t written() const { return overflow_ ? 0 : static_cast<uint32_t>(out_.pos()); }

 private:
  base::ByteWriter out_;
  bool overflow_ = false;
};

void EncodeSet(const Set& set, TlvWriter* w) {
  static constexpr const char kName[] = "libstats_store_iflstats_full_record";
  w->Put(LIBSTATS_TLV_GENERIC, &set.generic, kGenericSize);
  for (const PointerSection& s : kPointerSection) {
    if (const void* p = SlotOf(&set, s); p != nullptr) {
      w->Put(s.tag, p, s.size);
      VSK_TRACE("%s:- %s_len:%d\n", kName, s.store, TlvLen(s.size));
    }
  }
  for (const libstats_ifl_qcntr_t* c : set.qcntr) {
    if (c == nullptr) continue;
    w->Put(LIBSTATS_TLV_QCNTR, c, kQcntrSize);
    VSK_TRACE("%s:- %s_len:%d\n", kName, "qc", TlvLen(kQcntrSize));
  }
  for (const libstats_ifl_qcntr_t* c : set.inqcntr) {
    if (c == nullptr) continue;
    w->Put(LIBSTATS_TLV_INQCNTR, c, kQcntrSize);
    VSK_TRACE("%s:- %s_len:%d\n", kName, "inqc", TlvLen(kQcntrSize));
  }
  w->Put(LIBSTATS_TLV_TS, &set.ts, kWordSize);
  VSK_TRACE("%s:- %s_len:%d\n", kName, "ts", TlvLen(kWordSize));
  w->Put(LIBSTATS_TLV_GEN_NUM, &set.gen_num, kWordSize);
  VSK_TRACE("%s:- %s_len:%d\n", kName, "gennum", TlvLen(kWordSize));
}

// Where the decoder puts the queue counters of one tag: the next index of the current set.
struct QueueCursor {
  uint32_t index = 0;
  uint32_t set = 0;
};

}  // namespace

uint32_t TotalTlvLen(const libstats_iflstats_full_t& record) {
  static constexpr const char kName[] = "libstats_iflstats_full_get_total_tlv_len";
  uint32_t total = 2 * TlvLen(kGenericSize);
  auto add = [&total](const char* name, uint32_t len) {
    total += len;
    VSK_TRACE("%s:%s_len:%d tlen:%d\n", kName, name, len, total);
  };
  for (const Set& set : record.stats) {
    for (const PointerSection& s : kPointerSection) {
      if (SlotOf(&set, s) != nullptr) add(s.total, TlvLen(s.size));
    }
    for (const libstats_ifl_qcntr_t* c : set.qcntr) {
      if (c != nullptr) add("qc", TlvLen(kQcntrSize));
    }
    for (const libstats_ifl_qcntr_t* c : set.inqcntr) {
      if (c != nullptr) add("inqc", TlvLen(kQcntrSize));
    }
    add("ts", TlvLen(kWordSize));
    add("gennum", TlvLen(kWordSize));
  }
  return total;
}

vsk_status_t EncodeIflstatsFull(const libstats_iflstats_full_t& record, Buffer* out,
                                uint32_t* len) {
  // The work buffer is sized from the total, so that a record with every section in both
  // sets (17296 bytes) fits.
  const uint32_t total_tlv_len = TotalTlvLen(record);
  // Every byte is written below (the length check proves it), so none is cleared first.
  Buffer buf(static_cast<uint8_t*>(std::malloc(total_tlv_len)));
  if (buf == nullptr) return VSK_ERR_FATAL;
  TlvWriter w(buf.get(), total_tlv_len);
  EncodeSet(record.stats[LS_CURRENT], &w);
  EncodeSet(record.stats[LS_CLEARED], &w);
  const uint32_t tlv_len = w.written();
  if (!VSK_INSIST(tlv_len == total_tlv_len)) return VSK_ERR_FATAL;
  *out = std::move(buf);
  *len = total_tlv_len;
  return VSK_OK;
}

int DecodeIflstatsFull(const uint8_t* data, uint32_t size, libstats_iflstats_full_t* record) {
  // A tail of up to 4 bytes is ignored, also when there is nothing behind it.
  if (data == nullptr) return size > kTlvHeader ? EINVAL : 0;
  base::ByteReader in(data, size);
  uint32_t num_queues = LIBSTATS_MAX_QUEUES;
  uint32_t seen[kMaxTag + 1] = {};
  QueueCursor out_queue;
  QueueCursor in_queue;
  while (in.remaining() > kTlvHeader) {
    uint16_t tag = 0;
    uint16_t len = 0;
    in.Get(&tag);
    in.Get(&len);
    if (len < kTlvHeader) return EINVAL;  // a length of 4 is an empty section
    // The section and the padding up to the next multiple of 4 must lie in the value.
    base::ByteReader body;
    if (!in.Slice(len - kTlvHeader, &body) || !in.Skip(RoundUp4(len) - len)) return EINVAL;

    if (tag == LIBSTATS_TLV_QCNTR || tag == LIBSTATS_TLV_INQCNTR) {
      QueueCursor& qc = tag == LIBSTATS_TLV_QCNTR ? out_queue : in_queue;
      if (qc.index >= LIBSTATS_MAX_QUEUES || qc.set >= LS_MAX) {
        VSK_TRACE("invalid index iflstats_full:%d", tag);
        return EINVAL;
      }
      auto* c = static_cast<libstats_ifl_qcntr_t*>(NewSection(kQcntrSize, &body));
      if (c == nullptr) {
        VSK_TRACE("%s", tag == LIBSTATS_TLV_QCNTR
                            ? "mem alloc failed for iflstats queue counter"
                            : "mem alloc failed for iflstats inqueue counter");
        return ENOMEM;
      }
      Set& set = record->stats[qc.set];
      (tag == LIBSTATS_TLV_QCNTR ? set.qcntr : set.inqcntr)[qc.index] = c;
      VSK_TRACE("tlv_len:%d %s", len, tag == LIBSTATS_TLV_QCNTR ? "qcntr" : "inqcntr");
      // The counters of a set end after `num of q` of them (from the last queue header
      // read) or after the eighth.
      if (++qc.index == num_queues || qc.index == LIBSTATS_MAX_QUEUES) {
        ++qc.set;
        qc.index = 0;
      }
      continue;
    }
    if (tag < LIBSTATS_TLV_GENERIC || tag > kMaxTag) continue;  // unknown: skipped
    if (seen[tag] >= LS_MAX) {
      VSK_TRACE("invalid index iflstats_full:%d", tag);
      return EINVAL;
    }
    Set& set = record->stats[seen[tag]];
    if (tag == LIBSTATS_TLV_GENERIC) {
      CopySection(&body, &set.generic, kGenericSize);
      VSK_TRACE("tlv_len:%d generic stats", len);
    } else if (tag == LIBSTATS_TLV_TS || tag == LIBSTATS_TLV_GEN_NUM) {
      CopySection(&body, tag == LIBSTATS_TLV_TS ? &set.ts : &set.gen_num, kWordSize);
      VSK_TRACE("tlv_len:%d %s", len, tag == LIBSTATS_TLV_TS ? "ts" : "gen_num");
    } else {
      const PointerSection& s = *PointerSectionByTag(tag);
      void* p = NewSection(s.size, &body);
      if (p == nullptr) {
        VSK_TRACE("%s", s.no_mem);
        return ENOMEM;
      }
      SlotOf(&set, s) = p;
      VSK_TRACE("tlv_len:%d %s", len, s.decode);
      if (tag == LIBSTATS_TLV_Q || tag == LIBSTATS_TLV_INQ) {
        num_queues = static_cast<const libstats_ifl_qhdr_t*>(p)->num_q;
      }
    }
    ++seen[tag];
  }
  return 0;
}

void FreeSet(libstats_iflstats_full_set_t* set) {
  for (const PointerSection& s : kPointerSection) {
    void*& slot = SlotOf(set, s);
    std::free(slot);
    slot = nullptr;
  }
  // Queue counters are freed up to the first gap; what stands behind one is not this
  // function's to free.
  for (auto* counters : {set->qcntr, set->inqcntr}) {
    for (int i = 0; i < LIBSTATS_MAX_QUEUES && counters[i] != nullptr; ++i) {
      std::free(counters[i]);
      counters[i] = nullptr;
    }
  }
}

void FreeSets(libstats_iflstats_full_t* record) {
  for (libstats_iflstats_full_set_t& set : record->stats) FreeSet(&set);
}

}  // namespace vsk::stats
