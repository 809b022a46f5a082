#ifndef TANSY_HOST_PROMETHEUS_TEXT_H
#define TANSY_HOST_PROMETHEUS_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tansy::Host {

// Writes figures in the text format 0.0.4 of Prometheus
// (https://prometheus.io/docs/instrumenting/exposition_formats/).
class CPrometheusText {
 public:
  using Labels = std::vector<std::pair<std::string_view, std::string_view>>;

  // Begins a family: what its samples are, in words. `type` is "counter", "gauge" or "histogram".
  void Family(std::string_view name, std::string_view type, std::string_view help);
  // Adds a sample of the family; `suffix` stands behind its name ("_bucket").
  void Sample(double value, const Labels& labels = {}, std::string_view suffix = {});
  void Sample(std::uint64_t value, const Labels& labels = {}, std::string_view suffix = {});

  std::string Take() { return std::move(text_); }

 private:
  void Begin(const Labels& labels, std::string_view suffix);

  std::string text_;
  std::string name_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_PROMETHEUS_TEXT_H
