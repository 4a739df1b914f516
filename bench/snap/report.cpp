#include "report.h"

#include <iomanip>
#include <optional>
#include <sstream>
#include <string>

#include "table.h"

namespace snapbench {

namespace {

constexpr int kChunkWidth = 8;
constexpr int kPassWidth = 13;
constexpr int kWorkloadWidth = 31;
constexpr int kFigureWidth = 16;

std::string_view pass_name(Pass pass) {
    switch (pass) {
        case Pass::kFirstWrite:
            return "first write";
        case Pass::kRewrite:
            return "rewrite";
        case Pass::kRead:
            return "read";
    }
    return "";
}

std::string chunk_name(std::uint32_t chunk_size) {
    return std::to_string(chunk_size / 1024) + " KiB";
}

std::optional<double> median_of(const Row& row, Target target) {
    if (row.figures.at(target).empty()) {
        return std::nullopt;
    }
    return bench::median(row.figures.at(target));
}

// One goal: in the rows of `pass`, `numerator`'s median over
// `denominator`'s is at least `at_least`.
struct Goal {
    Pass pass;
    Target numerator;
    Target denominator;
    double at_least;
    std::string_view what;
};

constexpr std::array kGoals = {
    Goal{Pass::kFirstWrite, kTrakSnap, kDmSnapshot, 1.0,
         "first writes after a snapshot: trak snap / dm-snapshot"},
    Goal{Pass::kRewrite, kTrakSnap, kTrak, 0.95,
         "rewrites of preserved chunks: trak snap / trak, no snap"},
    Goal{Pass::kRead, kTrakSnap, kTrak, 0.90,
         "reads of chunks not preserved: trak snap / trak, no snap (the origin)"},
};

void print_table(std::ostream& out, const std::vector<Row>& rows) {
    out << std::left << std::setw(kChunkWidth) << "chunk" << std::setw(kPassWidth) << "pass"
        << std::setw(kWorkloadWidth) << "workload" << std::right;
    for (const std::string_view name : kTargetNames) {
        out << std::setw(kFigureWidth) << name;
    }
    out << '\n';
    for (const Row& row : rows) {
        out << std::left << std::setw(kChunkWidth) << chunk_name(row.chunk_size)
            << std::setw(kPassWidth) << pass_name(row.pass) << std::setw(kWorkloadWidth)
            << row.workload->name << std::right;
        for (std::size_t target = 0; target < kTargetCount; ++target) {
            const std::optional<double> figure = median_of(row, static_cast<Target>(target));
            out << std::setw(kFigureWidth)
                << (figure ? bench::figure_text(*row.workload, *figure) : "-");
        }
        out << '\n';
    }
}

void print_goals(std::ostream& out, const std::vector<Row>& rows) {
    for (const Goal& goal : kGoals) {
        out << '\n'
            << goal.what << " (goal: at least " << std::fixed << std::setprecision(2)
            << goal.at_least << "):\n";
        for (const Row& row : rows) {
            const std::optional<double> numerator = median_of(row, goal.numerator);
            const std::optional<double> denominator = median_of(row, goal.denominator);
            if (row.pass != goal.pass || !numerator || !denominator) {
                continue;
            }
            const double ratio = *numerator / *denominator;
            out << "  " << std::left << std::setw(kChunkWidth) << chunk_name(row.chunk_size)
                << std::setw(kWorkloadWidth) << row.workload->name << std::right
                << std::setprecision(3) << ratio << (ratio >= goal.at_least ? "  met" : "  missed")
                << '\n';
        }
    }
}

}  // namespace

void print_report(std::ostream& out, const std::vector<Row>& rows) {
    print_table(out, rows);
    print_goals(out, rows);
}

}  // namespace snapbench
