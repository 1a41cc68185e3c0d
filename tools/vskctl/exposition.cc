// See exposition.h.
#include "exposition.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace vskctl {
namespace {

bool ValidName(std::string_view name, bool colon) {
  if (name.empty()) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (colon && c == ':') ||
              (i > 0 && c >= '0' && c <= '9');
    if (!ok) return false;
  }
  return true;
}

void Require(bool ok, const char* what, std::string_view name) {
  if (ok) return;
  std::fprintf(stderr, "vskctl: invalid %s \"%.*s\" in the metrics\n", what,
               static_cast<int>(name.size()), name.data());
  std::abort();
}

void AppendEscaped(std::string* out, std::string_view text, bool quote) {
  for (char c : text) {
    if (c == '\\') {
      *out += "\\\\";
    } else if (c == '\n') {
      *out += "\\n";
    } else if (quote && c == '"') {
      *out += "\\\"";
    } else {
      *out += c;
    }
  }
}

}  // namespace

void Exposition::Family(std::string_view name, std::string_view type, std::string_view help) {
  Require(ValidName(name, true), "metric name", name);
  Require(type == "gauge" || type == "counter", "metric type", type);
  Require(type != "counter" || (name.size() > 6 && name.substr(name.size() - 6) == "_total"),
          "counter name", name);
  family_ = name;
  text_ += "# HELP ";
  text_ += name;
  text_ += ' ';
  AppendEscaped(&text_, help, false);
  text_ += "\n# TYPE ";
  text_ += name;
  text_ += ' ';
  text_ += type;
  text_ += '\n';
}

void Exposition::Head(const Labels& labels) {
  text_ += family_;
  if (labels.empty()) {
    text_ += ' ';
    return;
  }
  text_ += '{';
  for (size_t i = 0; i < labels.size(); ++i) {
    Require(ValidName(labels[i].first, false), "label name", labels[i].first);
    if (i > 0) text_ += ',';
    text_ += labels[i].first;
    text_ += "=\"";
    AppendEscaped(&text_, labels[i].second, true);
    text_ += '"';
  }
  text_ += "} ";
}

void Exposition::Sample(uint64_t value, const Labels& labels) {
  Head(labels);
  char number[24];
  std::snprintf(number, sizeof number, "%" PRIu64 "\n", value);
  text_ += number;
}

void Exposition::Sample(double value, const Labels& labels) {
  Head(labels);
  char number[40];
  std::snprintf(number, sizeof number, "%.6g\n", value);
  text_ += number;
}

void Exposition::Gauge(std::string_view name, std::string_view help, uint64_t value) {
  Family(name, "gauge", help);
  Sample(value);
}

void Exposition::Counter(std::string_view name, std::string_view help, uint64_t value) {
  Family(name, "counter", help);
  Sample(value);
}

}  // namespace vskctl
