// The Prometheus text exposition format (version 0.0.4): one "# HELP" and one "# TYPE"
// line per metric family, then its samples "name{label="value",...} value".
//
// Invariants the builder keeps: a family's lines are contiguous and come once; metric and
// label names match [a-zA-Z_:][a-zA-Z0-9_:]* and [a-zA-Z_][a-zA-Z0-9_]* (checked, a bad
// name is a programming error and aborts in every build); label values and help texts are
// escaped (backslash, double quote in values, newline).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vskctl {

using Labels = std::vector<std::pair<std::string, std::string>>;

class Exposition {
 public:
  static constexpr const char kContentType[] = "text/plain; version=0.0.4; charset=utf-8";

  // Starts a family: `type` is "gauge" or "counter" (a counter's name ends in "_total").
  void Family(std::string_view name, std::string_view type, std::string_view help);
  // One sample of the current family.
  void Sample(uint64_t value, const Labels& labels = {});
  void Sample(double value, const Labels& labels = {});
  // A family with a single unlabelled sample.
  void Gauge(std::string_view name, std::string_view help, uint64_t value);
  void Counter(std::string_view name, std::string_view help, uint64_t value);

  const std::string& text() const { return text_; }

 private:
  void Head(const Labels& labels);

  std::string text_;
  std::string family_;
};

}  // namespace vskctl
