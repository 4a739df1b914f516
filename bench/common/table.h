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

}  // namespace bench
