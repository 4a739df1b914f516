#include "table.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace bench {

namespace {

constexpr int kWorkloadWidth = 31;
constexpr int kFigureWidth = 16;
constexpr int kRatioWidth = 15;

}  // namespace

std::string figure_text(const Workload& workload, double figure) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(workload.per_op ? 0 : 1) << figure
         << (workload.per_op ? " IOPS" : " MiB/s");
    return text.str();
}

double median(std::vector<double> values) {
    if (values.empty()) {
        throw std::invalid_argument("median of no values");
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void print_table(std::ostream& out, const std::vector<std::string>& targets,
                 const std::vector<Row>& rows) {
    out << std::left << std::setw(kWorkloadWidth) << "workload";
    for (const std::string& target : targets) {
        out << std::right << std::setw(kFigureWidth) << target;
    }
    for (std::size_t i = 1; i < targets.size(); ++i) {
        out << std::setw(kRatioWidth) << targets[i] + "/raw";
    }
    out << '\n';
    for (const Row& row : rows) {
        out << std::left << std::setw(kWorkloadWidth) << row.workload->name << std::right;
        for (const double figure : row.figures) {
            out << std::setw(kFigureWidth) << figure_text(*row.workload, figure);
        }
        for (std::size_t i = 1; i < row.figures.size(); ++i) {
            std::ostringstream ratio;
            ratio << std::fixed << std::setprecision(3) << row.figures[i] / row.figures.front();
            out << std::setw(kRatioWidth) << ratio.str();
        }
        out << '\n';
    }
}

void print_start_table(std::ostream& out, const std::vector<std::string>& targets,
                       const std::vector<StartRow>& rows) {
    out << std::left << std::setw(kWorkloadWidth) << "workload";
    for (const std::string& target : targets) {
        out << std::right << std::setw(kFigureWidth) << target + " 1st s" << std::setw(kFigureWidth)
            << target + " then" << std::setw(kRatioWidth) << "ratio";
    }
    out << '\n';
    for (const StartRow& row : rows) {
        out << std::left << std::setw(kWorkloadWidth) << row.workload->name << std::right;
        for (std::size_t i = 0; i < row.first.size(); ++i) {
            std::ostringstream ratio;
            ratio << std::fixed << std::setprecision(3) << row.first[i] / row.steady[i];
            out << std::setw(kFigureWidth) << figure_text(*row.workload, row.first[i])
                << std::setw(kFigureWidth) << figure_text(*row.workload, row.steady[i])
                << std::setw(kRatioWidth) << ratio.str();
        }
        out << '\n';
    }
}

void print_latency_table(std::ostream& out, const std::vector<std::string>& targets,
                         const std::vector<double>& first_ms, const std::vector<double>& next_ms) {
    out << std::left << std::setw(kWorkloadWidth) << "target" << std::right
        << std::setw(kFigureWidth) << "first write" << std::setw(kFigureWidth) << "next write"
        << '\n';
    for (std::size_t i = 0; i < targets.size(); ++i) {
        std::ostringstream first;
        std::ostringstream next;
        first << std::fixed << std::setprecision(2) << first_ms[i] << " ms";
        next << std::fixed << std::setprecision(2) << next_ms[i] << " ms";
        out << std::left << std::setw(kWorkloadWidth) << targets[i] << std::right
            << std::setw(kFigureWidth) << first.str() << std::setw(kFigureWidth) << next.str()
            << '\n';
    }
}

}  // namespace bench
