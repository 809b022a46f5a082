#include "PrometheusText.h"

#include <gtest/gtest.h>

namespace Tansy::Host {
namespace {

TEST(PrometheusTextTest, WritesFamiliesAndTheirSamples) {
  CPrometheusText text;
  text.Family("things_total", "counter", "Things so far.");
  text.Sample(std::uint64_t{18446744073709551615U});
  text.Sample(std::uint64_t{3}, {{"kind", "a"}, {"size", "b"}});
  text.Family("time_seconds", "histogram", "Times.");
  text.Sample(std::uint64_t{1}, {{"le", "0.5"}}, "_bucket");
  text.Sample(0.25, {}, "_sum");
  EXPECT_EQ(text.Take(),
            "# HELP things_total Things so far.\n"
            "# TYPE things_total counter\n"
            "things_total 18446744073709551615\n"
            "things_total{kind=\"a\",size=\"b\"} 3\n"
            "# HELP time_seconds Times.\n"
            "# TYPE time_seconds histogram\n"
            "time_seconds_bucket{le=\"0.5\"} 1\n"
            "time_seconds_sum 0.25\n");
}

TEST(PrometheusTextTest, EscapesWhatWouldEndALabel) {
  CPrometheusText text;
  text.Family("x", "gauge", "X.");
  text.Sample(std::uint64_t{1}, {{"l", "a\"b\\c\nd"}});
  EXPECT_NE(text.Take().find("x{l=\"a\\\"b\\\\c\\nd\"} 1\n"), std::string::npos);
}

}  // namespace
}  // namespace Tansy::Host
