// Figures of the benchmarks: quantiles of per-round samples.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace vsk::bench {

// The q-quantile (0 to 1) of `v`, by linear interpolation. REQUIRES: v not empty.
inline double Quantile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  double at = q * static_cast<double>(v.size() - 1);
  size_t lo = static_cast<size_t>(at);
  size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (v[hi] - v[lo]) * (at - static_cast<double>(lo));
}

inline double Median(const std::vector<double>& v) { return Quantile(v, 0.5); }

}  // namespace vsk::bench
