#include "fio.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "command.h"

namespace bench {

namespace {

// Fields of fio's terse output, version 3, counted from 1.
constexpr std::size_t kErrorField = 5;
constexpr std::size_t kReadBandwidthField = 7;  // KiB/s
constexpr std::size_t kReadIopsField = 8;
constexpr std::size_t kWriteBandwidthField = 48;  // KiB/s
constexpr std::size_t kWriteIopsField = 49;

std::vector<std::string_view> split(std::string_view line, char separator) {
    std::vector<std::string_view> fields;
    for (std::size_t start = 0;;) {
        const std::size_t end = line.find(separator, start);
        fields.push_back(line.substr(start, end - start));
        if (end == std::string_view::npos) {
            return fields;
        }
        start = end + 1;
    }
}

double number(const std::vector<std::string_view>& fields, std::size_t field) {
    const std::string_view text = fields.at(field - 1);
    double value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) {
        throw std::runtime_error("fio: field " + std::to_string(field) + " is not a number: '" +
                                 std::string(text) + "'");
    }
    return value;
}

Measurement parse_terse(std::string_view output, bool reads = false) {
    const std::vector<std::string_view> fields = split(output.substr(0, output.find('\n')), ';');
    // The first field is the terse version.
    if (fields.size() < kWriteIopsField || fields.front() != "3") {
        throw std::runtime_error("fio: unexpected output: " + std::string(output));
    }
    if (number(fields, kErrorField) != 0) {
        throw std::runtime_error("fio: the job failed: " + std::string(output));
    }
    return {.iops = number(fields, reads ? kReadIopsField : kWriteIopsField),
            .mib_per_s = number(fields, reads ? kReadBandwidthField : kWriteBandwidthField) / 1024};
}

std::vector<std::string> fio_args(const std::string& device, std::string_view rw,
                                  std::uint32_t block_size, std::uint32_t queue_depth,
                                  std::uint64_t span_bytes) {
    return {"fio",
            "--name=cbt",
            "--filename=" + device,
            "--rw=" + std::string(rw),
            "--bs=" + std::to_string(block_size),
            "--iodepth=" + std::to_string(queue_depth),
            "--size=" + std::to_string(span_bytes),
            "--direct=1",
            "--ioengine=libaio",
            "--randrepeat=0",
            "--norandommap",
            "--output-format=terse",
            "--terse-version=3"};
}

std::vector<std::string> timed_fio_args(const std::string& device, const Workload& workload,
                                        const FioSettings& settings) {
    std::vector<std::string> args = fio_args(device, workload.rw, workload.block_size,
                                             workload.queue_depth, settings.span_bytes);
    args.emplace_back("--time_based");
    args.emplace_back("--runtime=" + std::to_string(settings.runtime_s));
    return args;
}

// The values of one of fio's averaged logs ("time, value, direction, ...").
std::vector<double> log_values(const std::filesystem::path& path) {
    std::ifstream log(path);
    if (!log) {
        throw std::runtime_error("fio: no log " + path.string());
    }
    std::vector<double> values;
    std::string line;
    while (std::getline(log, line)) {
        const std::vector<std::string_view> fields = split(line, ',');
        if (fields.size() >= 2) {
            std::string_view value = fields[1];
            value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
            values.push_back(number({value}, 1));
        }
    }
    return values;
}

}  // namespace

Measurement run_fio(const std::string& device, const Workload& workload,
                    const FioSettings& settings) {
    return parse_terse(run_command(timed_fio_args(device, workload, settings)));
}

std::vector<double> run_fio_per_second(const std::string& device, const Workload& workload,
                                       const FioSettings& settings) {
    const std::filesystem::path prefix = std::filesystem::temp_directory_path() / "cbt-seconds";
    const std::string kind = workload.per_op ? "iops" : "bw";
    std::vector<std::string> args = timed_fio_args(device, workload, settings);
    args.emplace_back("--write_" + kind + "_log=" + prefix.string());
    args.emplace_back("--log_avg_msec=1000");
    parse_terse(run_command(args));
    const std::filesystem::path log = prefix.string() + "_" + kind + ".1.log";
    std::vector<double> values = log_values(log);
    std::filesystem::remove(log);
    if (!workload.per_op) {
        for (double& value : values) {
            value /= 1024;  // KiB/s to MiB/s
        }
    }
    return values;
}

void fill_span(const std::string& device, const FioSettings& settings) {
    parse_terse(run_command(fio_args(device, "write", 1048576, 32, settings.span_bytes)));
}

Measurement run_fio_replay(const std::string& device, const Replay& replay) {
    // fio's version 2 I/O log: the file's name on each line, no timing.
    const std::filesystem::path log = std::filesystem::temp_directory_path() / "bench-replay.log";
    {
        std::ofstream out(log);
        out << "fio version 2 iolog\n" << device << " add\n" << device << " open\n";
        const std::string action = replay.reads ? " read " : " write ";
        for (const std::uint64_t offset : replay.offsets) {
            out << device << action << offset << ' ' << replay.block_size << '\n';
        }
        out << device << " close\n";
        if (!out.flush()) {
            throw std::runtime_error("cannot write " + log.string());
        }
    }
    const std::string output =
        run_command({"fio", "--name=replay", "--read_iolog=" + log.string(), "--replay_no_stall=1",
                     "--bs=" + std::to_string(replay.block_size),
                     "--iodepth=" + std::to_string(replay.queue_depth), "--direct=1",
                     "--ioengine=libaio", "--output-format=terse", "--terse-version=3"});
    std::filesystem::remove(log);
    return parse_terse(output, replay.reads);
}

}  // namespace bench
