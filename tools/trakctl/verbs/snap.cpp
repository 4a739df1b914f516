// trakctl snap: attach a snap node to a filter node, or bring one back into
// service after the module was reloaded.
#include <array>
#include <filesystem>
#include <string>
#include <system_error>

#include "../action_options.h"
#include "../args.h"
#include "../device_files.h"
#include "../uuid.h"
#include "verbs.h"

namespace trakctl {

namespace {

constexpr std::string_view kChunkSize = "--chunk-size";
constexpr std::string_view kCowDir = "--cow-dir";
constexpr std::string_view kCowBitmap = "--cow-bitmap";
constexpr std::string_view kCowData = "--cow-data";
constexpr std::string_view kMinor = "--minor";
constexpr std::string_view kName = "--name";
constexpr std::string_view kUuid = "--uuid";
constexpr std::string_view kValid = "--valid";
constexpr std::string_view kStopPending = "--stop-pending";
constexpr std::string_view kDelPending = "--del-pending";

constexpr std::array kOptions = {
    OptionSpec{kChunkSize, "N", "add: copy-on-write granule in bytes (required)"},
    OptionSpec{kCowDir, "DIR", "add: make the COW files in DIR, named after the snap's uuid"},
    OptionSpec{kCowBitmap, "FILE", "add: the COW bitmap file (with --cow-data, not --cow-dir)"},
    OptionSpec{kCowData, "FILE", "add: the COW data file (with --cow-bitmap)"},
    OptionSpec{kMinor, "M", "add: the snap's minor (default: the lowest free one)"},
    OptionSpec{kName, "NAME", "add: the snap's name (default: trakM)"},
    OptionSpec{kUuid, "UUID", "add: the snap's uuid (default: a new one)"},
    OptionSpec{kValid, "0|1", "resume: whether the snap's image is still valid (default 1)"},
    OptionSpec{kStopPending, "0|1", "resume: whether its stop was pending (default 0)"},
    OptionSpec{kDelPending, "0|1", "resume: whether its delete was pending (default 0)"},
};

constexpr std::array kAddOptions = {kChunkSize, kCowDir, kCowBitmap, kCowData,
                                    kMinor,     kName,   kUuid};
constexpr std::array kResumeOptions = {kValid, kStopPending, kDelPending};

// The COW files of a new snap, and the uuid that names them.
struct CowFiles {
    std::string bitmap;
    std::string data;
    std::string uuid;  // empty: the driver chooses
};

// The directory that --cow-dir names; it must exist, since the driver makes
// the files but not their directory.
std::filesystem::path cow_directory(std::string_view dir) {
    std::filesystem::path path = absolute_path(dir);
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!error && !std::filesystem::is_directory(status)) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (error) {
        throw std::system_error(error, "cannot use the COW directory " + path.string());
    }
    return path;
}

// With --cow-dir, the files are DIR/trak-snap-UUID.cow-bitmap and
// .cow-data: the uuid makes them the snap's own, and adding the snap again
// with the same --cow-dir and --uuid finds them again for a resume.
CowFiles files_in_directory(const OptionValues& options, std::string_view dir) {
    std::string uuid(options.value(kUuid).value_or(""));
    if (uuid.empty()) {
        uuid = new_uuid();
    } else if (!is_uuid(uuid)) {
        throw UsageError("--cow-dir names the COW files after the uuid, and '" + uuid +
                         "' is not of the form {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}");
    }
    const std::filesystem::path base =
        cow_directory(dir) / ("trak-snap-" + std::string(uuid_digits(uuid)));
    return {
        .bitmap = base.string() + ".cow-bitmap", .data = base.string() + ".cow-data", .uuid = uuid};
}

CowFiles cow_files(const OptionValues& options) {
    const auto dir = options.value(kCowDir);
    const auto bitmap = options.value(kCowBitmap);
    const auto data = options.value(kCowData);
    if (dir && (bitmap || data)) {
        throw UsageError("--cow-dir and --cow-bitmap/--cow-data exclude each other");
    }
    if (dir) {
        return files_in_directory(options, *dir);
    }
    if (!bitmap || !data) {
        throw UsageError("add needs --cow-dir DIR, or both --cow-bitmap FILE and --cow-data FILE");
    }
    CowFiles files{.bitmap = absolute_path(*bitmap),
                   .data = absolute_path(*data),
                   .uuid = std::string(options.value(kUuid).value_or(""))};
    if (std::filesystem::path(files.bitmap).lexically_normal() ==
        std::filesystem::path(files.data).lexically_normal()) {
        throw UsageError("the COW bitmap and the COW data must be two different files");
    }
    return files;
}

void run_add(const Invocation& invocation, std::int32_t filter) {
    const OptionValues& options = invocation.options;
    const std::uint32_t chunk_size = parse_size(options.required(kChunkSize), "chunk size");
    const std::int32_t minor = parse_signed_minor(options.value(kMinor).value_or("-1"));
    const CowFiles files = cow_files(options);
    const trak::SnapNode snap = invocation.context.control().add_snap({
        .filter_minor = filter,
        .snap_minor = minor,
        .chunk_size = chunk_size,
        .cow_bmp_fname = files.bitmap,
        .cow_data_fname = files.data,
        .uuid = files.uuid,
        .name = std::string(options.value(kName).value_or("")),
    });
    const bool raised = snap.chunk_size != chunk_size;
    Report report{
        {"filter_minor", "filter", std::int64_t{filter}},
        {"snap_minor", "minor", std::int64_t{snap.id.minor}},
        {"name", "name", snap.id.name},
        {"uuid", "uuid", snap.id.uuid},
        {"chunk_size", "chunk size (bytes)", std::uint64_t{snap.chunk_size}},
    };
    if (invocation.format == OutputFormat::Json) {
        report.push_back({"chunk_size_raised", "chunk size raised", raised});
    }
    report.insert(report.end(), {
                                    {"cow_bmp_fname", "COW bitmap file", files.bitmap},
                                    {"cow_data_fname", "COW data file", files.data},
                                });
    add_device_files(report, invocation.context.proc(), snap.id.minor);
    print_report(report, invocation.format, invocation.out);
    if (raised && invocation.format == OutputFormat::Text) {
        invocation.out << "The driver raised the chunk size from " << chunk_size << " to "
                       << snap.chunk_size
                       << " bytes: a snap has at most 2^30 chunks, and the partition is larger.\n";
    }
}

void run_resume(const Invocation& invocation, std::int32_t minor) {
    const OptionValues& options = invocation.options;
    invocation.context.control().resume_snap({
        .snap_minor = minor,
        .snap_valid = parse_flag(options.value(kValid).value_or("1"), "--valid"),
        .stop_pending = parse_flag(options.value(kStopPending).value_or("0"), "--stop-pending"),
        .del_pending = parse_flag(options.value(kDelPending).value_or("0"), "--del-pending"),
    });
}

void run_snap(const Invocation& invocation) {
    const std::string_view action = invocation.args[0];
    if (action != "add" && action != "resume") {
        throw UsageError("unknown snap action '" + std::string(action) +
                         "': expected add or resume");
    }
    const std::int32_t minor = parse_minor(invocation.args[1]);
    if (action == "add") {
        check_action_options(invocation, action, kOptions, kAddOptions, true);
        run_add(invocation, minor);
    } else {
        check_action_options(invocation, action, kOptions, kResumeOptions, false);
        run_resume(invocation, minor);
    }
}

}  // namespace

const Verb& snap_verb() {
    static const Verb verb{
        .name = "snap",
        .arguments =
            "add FILTER --chunk-size N (--cow-dir DIR | --cow-bitmap FILE --cow-data FILE) "
            "[--minor M] [--name NAME] [--uuid UUID] | resume MINOR [--valid 0|1] "
            "[--stop-pending 0|1] [--del-pending 0|1]",
        .summary = "attach a snap node to a filter node, or resume one",
        .description =
            "  add     attaches a new snap node to the filter node with minor FILTER. The\n"
            "          snap shows the partition as it was when 'trakctl start' starts it:\n"
            "          from then on the old contents of each chunk of N bytes are copied\n"
            "          into the COW data file before a write through the filter changes\n"
            "          them, and marked in the COW bitmap file. N is a power of two of at\n"
            "          least 4096, the same for every snap of the filter; the driver\n"
            "          doubles it while the partition has more than 2^30 chunks, and\n"
            "          trakctl says so. The COW files must lie on another partition, on a\n"
            "          file system with a block device (not tmpfs). With --cow-dir, they\n"
            "          are DIR/trak-snap-UUID.cow-bitmap and DIR/trak-snap-UUID.cow-data,\n"
            "          named after the snap's uuid: add the snap again with the same\n"
            "          --cow-dir and --uuid to find them for a resume. Prints the snap's\n"
            "          minor, name, uuid, chunk size, COW files and device files.\n"
            "  resume  brings the snap node with minor MINOR back into service with the\n"
            "          COW files it was added with, after the module was reloaded: starts\n"
            "          its filter if needed and loads its COW bitmap. The flags restore\n"
            "          the state the snap had.\n",
        .min_args = 2,
        .max_args = 2,
        .prints = true,
        .options = kOptions,
        .run = run_snap,
    };
    return verb;
}

}  // namespace trakctl
