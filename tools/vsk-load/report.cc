// The end table (or the same as one JSON document with --json): lifecycles per second, and
// per step the rate and the latency percentiles; with --baseline the raw side beside it and
// the ratio of the library's cost to the raw cost, per step and per lifecycle. Two ratios
// each: of the means, and of the medians. On a shared machine a step's mean carries every
// time the worker lost its core in the middle of it; the median is the step's own cost.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "load.h"

namespace vsk::load {
namespace {

struct StepFigures {
  uint64_t calls = 0;
  double rate = 0, mean_us = 0, p50 = 0, p99 = 0, p999 = 0;
};

double Quantile(const std::vector<uint32_t>& sorted, double q) {
  if (sorted.empty()) return 0;
  size_t at = static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
  return sorted[std::min(at, sorted.size() - 1)] / 1000.0;
}

StepFigures Figures(const PhaseFigures& p, int step) {
  std::vector<uint32_t> v = p.samples.ns[step];
  std::sort(v.begin(), v.end());
  StepFigures f;
  f.calls = v.size();
  if (v.empty()) return f;
  double sum = 0;
  for (uint32_t x : v) sum += x;
  f.mean_us = sum / static_cast<double>(v.size()) / 1000.0;
  f.rate = p.seconds > 0 ? static_cast<double>(v.size()) / p.seconds : 0;
  f.p50 = Quantile(v, 0.5), f.p99 = Quantile(v, 0.99), f.p999 = Quantile(v, 0.999);
  return f;
}

// The median cost of one lifecycle: each step's median times its calls per lifecycle.
double MedianLifecycleUs(const PhaseFigures& p) {
  if (p.lifecycles == 0) return 0;
  double sum = 0;
  for (int s = 0; s < kSteps; ++s) {
    StepFigures f = Figures(p, s);
    sum += f.p50 * static_cast<double>(f.calls) / static_cast<double>(p.lifecycles);
  }
  return sum;
}

nlohmann::json ToJson(const StepFigures& f) {
  return {{"calls", f.calls}, {"rate", f.rate},  {"mean_us", f.mean_us},
          {"p50_us", f.p50},  {"p99_us", f.p99}, {"p999_us", f.p999}};
}

double Rate(const PhaseFigures& p) {
  return p.seconds > 0 ? static_cast<double>(p.lifecycles) / p.seconds : 0;
}

}  // namespace

void PrintTable(const Options& o, int workers, const PhaseFigures& lib, const PhaseFigures* raw,
                const std::string& oracle, uint64_t leftovers) {
  // Cost of one lifecycle in worker time: the wall time of the phase times its workers.
  auto cost_us = [&](const PhaseFigures& p) {
    return p.lifecycles ? p.seconds * workers * 1e6 / static_cast<double>(p.lifecycles) : 0;
  };
  const double lifecycle_ratio =
      raw && raw->lifecycles && lib.lifecycles ? cost_us(lib) / cost_us(*raw) : 0;
  // Each sorts every step's samples: computed once, and only beside a raw run.
  const double lib_median_us = raw ? MedianLifecycleUs(lib) : 0;
  const double raw_median_us = raw ? MedianLifecycleUs(*raw) : 0;
  const double median_ratio = raw_median_us > 0 ? lib_median_us / raw_median_us : 0;
  if (o.json) {
    nlohmann::json j;
    j["workers"] = workers;
    j["live"] = o.live;
    j["seed"] = o.seed;
    j["seconds"] = lib.seconds;
    j["lifecycles"] = lib.lifecycles;
    j["lifecycles_per_second"] = Rate(lib);
    j["lifecycle_cost_us"] = cost_us(lib);
    for (int s = 0; s < kSteps; ++s) {
      StepFigures f = Figures(lib, s);
      nlohmann::json step = ToJson(f);
      if (raw != nullptr) {
        StepFigures r = Figures(*raw, s);
        step["raw"] = ToJson(r);
        step["ratio"] = r.calls ? nlohmann::json(f.mean_us / r.mean_us) : nlohmann::json(nullptr);
        step["ratio_p50"] =
            r.calls && r.p50 > 0 ? nlohmann::json(f.p50 / r.p50) : nlohmann::json(nullptr);
      }
      j["steps"][kStepNames[s]] = step;
    }
    if (raw != nullptr) {
      j["raw"] = {{"seconds", raw->seconds},
                  {"lifecycles", raw->lifecycles},
                  {"lifecycles_per_second", Rate(*raw)},
                  {"lifecycle_cost_us", cost_us(*raw)}};
      j["lifecycle_ratio"] = lifecycle_ratio;
      j["lifecycle_median_us"] = lib_median_us;
      j["raw"]["lifecycle_median_us"] = raw_median_us;
      j["lifecycle_ratio_p50"] = median_ratio;
    }
    j["oracle"] = oracle.empty() ? "ok" : oracle;
    j["leftovers_removed"] = leftovers;
    std::printf("%s\n", j.dump(2).c_str());
    return;
  }
  std::printf("\nvsk-load: %d workers, %llu live sessions, %llu lifecycles in %.2f s\n", workers,
              static_cast<unsigned long long>(o.live),
              static_cast<unsigned long long>(lib.lifecycles), lib.seconds);
  std::printf("lifecycles/s: %.0f   cost per lifecycle: %.1f us of worker time\n", Rate(lib),
              cost_us(lib));
  std::printf("%-16s %10s %10s %9s %9s %9s %9s", "step", "calls", "rate/s", "mean us", "p50 us",
              "p99 us", "p99.9 us");
  if (raw != nullptr)
    std::printf(" %9s %9s %9s %7s %7s", "raw mean", "raw p50", "raw p99", "ratio", "p50 r.");
  std::printf("\n");
  for (int s = 0; s < kSteps; ++s) {
    StepFigures f = Figures(lib, s);
    std::printf("%-16s %10llu %10.0f %9.1f %9.1f %9.1f %9.1f", kStepNames[s],
                static_cast<unsigned long long>(f.calls), f.rate, f.mean_us, f.p50, f.p99, f.p999);
    if (raw != nullptr) {
      StepFigures r = Figures(*raw, s);
      if (r.calls != 0) {
        std::printf(" %9.1f %9.1f %9.1f %6.2fx %6.2fx", r.mean_us, r.p50, r.p99,
                    f.mean_us / r.mean_us, r.p50 > 0 ? f.p50 / r.p50 : 0.0);
      } else {
        std::printf(" %9s %9s %9s %7s %7s", "-", "-", "-", "n/a", "n/a");  // no table work
      }
    }
    std::printf("\n");
  }
  if (raw != nullptr) {
    std::printf(
        "raw Berkeley DB: %.0f lifecycles/s, %.1f us per lifecycle; library/raw %.2fx "
        "(target <= 1.30x per step)\n",
        Rate(*raw), cost_us(*raw), lifecycle_ratio);
    std::printf("median lifecycle: library %.1f us, raw %.1f us; library/raw %.2fx\n",
                lib_median_us, raw_median_us, median_ratio);
  }
  if (leftovers != 0)
    std::printf("sessions of killed workers read back and removed: %llu\n",
                static_cast<unsigned long long>(leftovers));
  std::printf("oracle: %s\n", oracle.empty()
                                  ? "every count equals the recount; nothing left; ids unique"
                                  : "MISMATCH");
  if (!oracle.empty()) std::printf("%s", oracle.c_str());
}

}  // namespace vsk::load
