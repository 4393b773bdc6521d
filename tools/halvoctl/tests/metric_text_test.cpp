#include "metric_text.h"

#include <gtest/gtest.h>

namespace Hox::Ctl {

namespace {

void add(MetricList& list, const std::string& name, const std::string& label, double value) {
    auto& metric = *list.add_metrics();
    metric.set_name(name);
    metric.set_help("What it is.");
    metric.set_value(value);
    auto& entry = *metric.add_labels();
    entry.set_name("service");
    entry.set_value(label);
    *metric.add_labels() = entry;
}

TEST(MetricText, HasOneHeadingForEachMetric) {
    MetricList list;
    add(list, "a", "x", 1);
    add(list, "a", "y", 0.25);
    add(list, "b", "", 1700000000);
    EXPECT_EQ(metricText(list),
              "# HELP a What it is.\n# TYPE a gauge\n"
              "a{service=\"x\",service=\"x\"} 1\n"
              "a{service=\"y\",service=\"y\"} 0.25\n"
              "# HELP b What it is.\n# TYPE b gauge\n"
              "b{service=\"\",service=\"\"} 1700000000\n");
}

TEST(MetricText, LabelsOfAServiceCannotBreakTheText) {
    MetricList list;
    add(list, "a", "\"\\\n\xff", 1);
    EXPECT_NE(metricText(list).find("service=\"\\\"\\\\\\\\n\\\\xff\""), std::string::npos)
        << metricText(list);
    MetricList plain;
    add(plain, "a", "\"\\\n\xc3\xa4", 1);
    EXPECT_NE(metricText(plain).find("service=\"\\\"\\\\\\n\xc3\xa4\""), std::string::npos)
        << metricText(plain);
}

TEST(MetricText, LabelsCannotControlTheTerminal) {
    MetricList list;
    add(list, "a", "\x1b[2J|\xc2\x9b", 1);
    EXPECT_NE(metricText(list).find("service=\"\\\\x1b[2J|\\\\xc2\\\\x9b\""), std::string::npos)
        << metricText(list);
}

}  // namespace

}  // namespace Hox::Ctl
