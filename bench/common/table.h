// The benchmark's results: medians per workload and target, and their
// ratios to the raw device.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "fio.h"

namespace bench {

// `figure` with the unit `workload` is reported in ("12345 IOPS",
// "678.9 MiB/s").
std::string figure_text(const Workload& workload, double figure);

// The median of the values (the mean of the middle two for an even count).
double median(std::vector<double> values);

struct Row {
    const Workload* workload;
    std::vector<double> figures;  // per target; the first is the raw device
};

// One line per row: each target's figure (IOPS or MiB/s) and, for every
// target after the first, its ratio to the first.
void print_table(std::ostream& out, const std::vector<std::string>& targets,
                 const std::vector<Row>& rows);

// A workload's figure in the first second of a run and in the seconds
// after it, per target.
struct StartRow {
    const Workload* workload;
    std::vector<double> first;   // per target
    std::vector<double> steady;  // per target
};

// One line per row: for each target the first second's figure, the steady
// figure and the ratio of the two.
void print_start_table(std::ostream& out, const std::vector<std::string>& targets,
                       const std::vector<StartRow>& rows);

// One line per target: the latency of the first write and of the next one.
void print_latency_table(std::ostream& out, const std::vector<std::string>& targets,
                         const std::vector<double>& first_ms, const std::vector<double>& next_ms);

}  // namespace bench
