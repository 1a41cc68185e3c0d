// The filter daemon's data: encode and decode rates of a record with every field set, in
// the tagged and the positional form, beside a plain memcpy of the same number of bytes
// (the floor of any codec); and filter rule decodes per second.
//
// Noise: a round times one pass of the codec and one of memcpy back to back, their order
// alternating from round to round; each figure is the median over the rounds and the
// ratio is the median of the per-round ratios, with the middle half of the rounds as its
// spread. Decodes include the release of what they allocated; rule decodes include the
// free of the lines. Nothing is asserted: the figures are printed.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "../tests/libvsk/sidedata/pfltd_records.h"
#include "vsk/pfltd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kOpsPerPass = 20000;
constexpr int kRounds = 21;

uint64_t g_sink;
void Consume() { asm volatile("" : : "r"(g_sink) : "memory"); }

void* Alloc(size_t size, void*) { return std::malloc(size); }
void Free(void* p, void*) { std::free(p); }

// Seconds for one pass of `op`.
double Time(const std::function<void()>& op) {
  const auto start = Clock::now();
  for (int i = 0; i < kOpsPerPass; ++i) op();
  Consume();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double Quantile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  const double at = q * static_cast<double>(v.size() - 1);
  const size_t lo = static_cast<size_t>(at);
  const size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (v[hi] - v[lo]) * (at - static_cast<double>(lo));
}

struct Pair {
  const char* name;
  size_t bytes;
  std::function<void()> codec;
  std::function<void()> copy;
  std::vector<double> codec_rate, copy_rate, ratio;
};

void Measure(std::vector<Pair>& pairs) {
  for (int round = 0; round <= kRounds; ++round) {
    for (Pair& p : pairs) {
      const bool codec_first = round % 2 == 0;
      const double first = Time(codec_first ? p.codec : p.copy);
      const double second = Time(codec_first ? p.copy : p.codec);
      if (round == 0) continue;  // warm-up
      const double codec = codec_first ? first : second;
      const double copy = codec_first ? second : first;
      p.codec_rate.push_back(kOpsPerPass / codec);
      p.copy_rate.push_back(kOpsPerPass / copy);
      p.ratio.push_back(codec / copy);
    }
  }
}

}  // namespace

int main() {
  vsk::test::FullRecord full;
  const std::vector<uint8_t> tlv = vsk::test::EncodeTlv(full.record);
  const std::vector<uint8_t> idr = vsk::test::EncodeIdr(full.record);
  std::vector<uint8_t> out(std::max(tlv.size(), idr.size()));
  auto copy_of = [&out](const std::vector<uint8_t>& bytes) {
    return [&out, &bytes] {
      std::memcpy(out.data(), bytes.data(), bytes.size());
      g_sink += out[bytes.size() - 1];
      asm volatile("" : : "r"(out.data()) : "memory");
    };
  };
  auto encode = [&](bool tagged) {
    return [&, tagged] {
      const auto room = static_cast<uint32_t>(out.size());
      g_sink += tagged ? tlv_encode_pfltd_vsk_data(&full.record, nullptr, out.data(), room)
                       : idr_encode_pfltd_vsk_data_0(&full.record, out.data(), room);
    };
  };
  auto decode = [&](bool tagged) {
    return [&, tagged] {
      pfltd_vsk_data_t r;
      const std::vector<uint8_t>& in = tagged ? tlv : idr;
      const auto n = static_cast<uint32_t>(in.size());
      g_sink += static_cast<uint64_t>(
          tagged ? tlv_decode_pfltd_vsk_data(&r, nullptr, in.data(), n, Alloc, nullptr)
                 : idr_decode_pfltd_vsk_data_0(&r, in.data(), n, Alloc, nullptr));
      tlv_release_pfltd_vsk_data(&r, nullptr, Free, nullptr);
    };
  };
  std::vector<Pair> pairs = {
      {"tagged encode", tlv.size(), encode(true), copy_of(tlv), {}, {}, {}},
      {"tagged decode + release", tlv.size(), decode(true), copy_of(tlv), {}, {}, {}},
      {"positional encode", idr.size(), encode(false), copy_of(idr), {}, {}, {}},
      {"positional decode + release", idr.size(), decode(false), copy_of(idr), {}, {}, {}},
  };
  Measure(pairs);

  std::printf("filter daemon record with every field set (14 texts, 18 numbers, 8 lists)\n");
  std::printf("medians of %d rounds of %d ops per pass, codec and memcpy alternating in order\n\n",
              kRounds, kOpsPerPass);
  std::printf("| operation | bytes | codec ops/s | memcpy ops/s | codec/memcpy time (spread) |\n");
  std::printf("|---|---|---|---|---|\n");
  for (const Pair& p : pairs) {
    std::printf("| %s | %zu | %.0f | %.0f | %.1f (%.1f..%.1f) |\n", p.name, p.bytes,
                Quantile(p.codec_rate, 0.5), Quantile(p.copy_rate, 0.5), Quantile(p.ratio, 0.5),
                Quantile(p.ratio, 0.25), Quantile(p.ratio, 0.75));
  }

  // Filter rules: every match field of IPv4 and of IPv6, and a rule with none.
  vsk::test::RuleText v4;
  v4.action = 1;
  v4.src = {10, 1, 0, 0}, v4.src_prefix = 16, v4.dst = {192, 0, 2, 1}, v4.dst_prefix = 32;
  v4.protocol = 6, v4.src_port = 1024, v4.src_op = 3, v4.dst_port = 80, v4.dst_op = 2;
  v4.forwarding_class = "expedited", v4.policer = "police-10m";
  vsk::test::RuleText v6 = v4;
  v6.family = 3, v6.src = {0x20, 0x01, 0x0d, 0xb8}, v6.dst = {0xfe, 0x80};
  const vsk::test::RuleText bare;
  std::printf("\n| filter rule | text chars | decodes/s (spread) |\n|---|---|---|\n");
  for (const auto& [name, rule] :
       {std::pair{"IPv4, every match field", v4}, std::pair{"IPv6, every match field", v6},
        std::pair{"no match fields", bare}}) {
    const std::string text = rule.Hex();
    std::vector<double> rates;
    for (int round = 0; round <= kRounds; ++round) {
      const double secs = Time([&text] {
        char** lines = nullptr;
        vsk_app_pflt_adf_rule_decode(text.c_str(), &lines);
        g_sink += reinterpret_cast<uintptr_t>(lines[0]);
        vsk_app_pflt_adr_decode_free(&lines);
      });
      if (round != 0) rates.push_back(kOpsPerPass / secs);
    }
    std::printf("| %s | %zu | %.0f (%.0f..%.0f) |\n", name, text.size(), Quantile(rates, 0.5),
                Quantile(rates, 0.25), Quantile(rates, 0.75));
  }
  return 0;
}
