/// The last run of each log in the text format of Prometheus, for a node's textfile collector.
#ifndef FPD_REPORT_METRICS_H
#define FPD_REPORT_METRICS_H

#include <array>
#include <cstddef>
#include <string>

#include "run.h"

namespace fpd_report {

class Metrics {
  public:
    /// `log` is told apart from every other log of these metrics; `run` is its last.
    void add(const std::string &log, const fpd_log::Run &run);
    /// All of them; a metric without a sample is not there.
    std::string text() const;

  private:
    static constexpr std::size_t metric_count = 15;
    std::array<std::string, metric_count> samples_;
};

}  // namespace fpd_report

#endif
