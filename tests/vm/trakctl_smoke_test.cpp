// The real trakctl against the loaded driver: every verb, its output, its
// --json output and its exit status, end to end. Each verb is one entry of
// kVerbCases; a verb that prints is run a second time with --json from the
// same starting state.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "json_parser.h"
#include "support/bitmap_commands.h"
#include "support/bitmap_file.h"
#include "support/command.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/proc_files.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kExtentSize = 65536;
// 320 MiB disks (run-suite.sh) in 64 KiB extents.
constexpr std::uint32_t kExtents = 5120;
constexpr std::size_t kBitmapBytes = kExtents / 8;
// Extents 10 to 12 are written through the node in kStartedNode.
constexpr std::uint32_t kFirstWritten = 10;
constexpr std::uint32_t kWrittenExtents = 3;
constexpr const char* kRawBitmap = "/tmp/trakctl-smoke.raw";
// FilterTest's bitmap directory, and the file of node 0's incremental bitmap.
constexpr const char* kBitmapDir = "/tmp/trak-bitmaps";
constexpr const char* kIncrFile = "/tmp/trak-bitmaps/trak0.incr";
// The snap node of the snapshot starts, and its chunk size.
constexpr std::int32_t kSnapMinor = 1;
constexpr std::uint32_t kChunkSize = 65536;
// SnapTest's COW directory, which the verbs' arguments name.
constexpr const char* kSnapCowDir = "/mnt/trak-cow";

// What the node looks like before the verb runs.
enum class Start {
    kNoNode,        // the driver loaded, nothing else
    kStoppedNode,   // a filter node, minor 0, over the tracked disk, not started
    kStartedNode,   // the same, started, both bitmaps cleared, then extents
                    // 10 to 12 written through the node
    kExt2OnSpare,   // no node; an ext2 file system on the spare disk
    kFileOnDisk,    // kStoppedNode with both bitmaps cleared, then its
                    // incremental bitmap file replaced by a clean one of
                    // FileBits()
    kSnapAdded,     // kStartedNode, and a snap node on kSnapMinor, not started
    kSnapTaken,     // the same, the snap started
    kSnapOfExt2,    // an ext2 file system on the tracked disk, a started
                    // filter over it and a started snap on kSnapMinor
    kSnapToResume,  // kSnapTaken, stopped, the driver reloaded, the filter
                    // and the snap added again (not started) with the
                    // snap's old COW files
};

struct Output {
    int status;
    std::string out;
    std::string err;
};

struct VerbCase {
    std::string name;
    Start start;
    std::vector<std::string> args;
    int status;
    std::string out;  // ECMAScript regex of the whole standard output
    std::string err;  // and of the whole standard error
    // When not empty: run again with --json from the same start; stdout is
    // then one JSON object with exactly these keys, in this order.
    std::vector<std::string> json_keys;
    // Checks of the driver's state after the plain run.
    std::function<void(const ControlDevice&)> after;
};

std::string Slurp(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Runs trakctl with `args`, stdout and stderr apart.
Output RunTrakctl(const std::vector<std::string>& args) {
    const std::string out_file = "/tmp/trakctl-smoke.out";
    const std::string err_file = "/tmp/trakctl-smoke.err";
    std::vector<std::string> argv = {TRAK_TRAKCTL};
    argv.insert(argv.end(), args.begin(), args.end());
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        std::vector<char*> raw;
        raw.reserve(argv.size() + 1);
        for (std::string& arg : argv) {
            raw.push_back(arg.data());
        }
        raw.push_back(nullptr);
        execv(raw[0], raw.data());
        _exit(127);
    }
    const int status = WaitForChild(pid, kCommandTimeout);
    return {status, Slurp(out_file), Slurp(err_file)};
}

std::string Joined(const std::vector<std::string>& args) {
    std::string joined = "trakctl";
    for (const std::string& arg : args) {
        joined += " " + arg;
    }
    return joined;
}

void ExpectStarted(const ControlDevice& control, bool started, std::int32_t minor = 0) {
    const NodeInfo node = GetInfo(control, minor);
    ASSERT_EQ(node.error, 0);
    EXPECT_EQ(node.info.started, started ? 1 : 0) << "node " << minor;
}

void ExpectBitmap(const ControlDevice& control, BitmapKind kind,
                  const std::vector<std::uint8_t>& expected) {
    const BitmapReply reply = GetBitmap(control, 0, kind, kBitmapBytes);
    ASSERT_EQ(reply.error, 0);
    EXPECT_EQ(reply.bits, expected) << KindName(kind);
}

// The bitmap of kStartedNode: extents 10 to 12.
std::vector<std::uint8_t> WrittenBits() {
    std::vector<std::uint8_t> bits(kBitmapBytes, 0);
    for (std::uint32_t e = kFirstWritten; e < kFirstWritten + kWrittenExtents; ++e) {
        bits[e / 8] |= static_cast<std::uint8_t>(1U << (e % 8));
    }
    return bits;
}

// A bitmap file's bits that no write through the node made: extent 1.
std::vector<std::uint8_t> FileBits() {
    std::vector<std::uint8_t> bits(kBitmapBytes, 0);
    bits[0] = 0x02;
    return bits;
}

const std::vector<std::uint8_t> kNoBits(kBitmapBytes, 0);
const std::vector<std::uint8_t> kAllBits(kBitmapBytes, 0xff);

const std::string kStatusLines =
    "control device:  /dev/trakctl\n"
    "character major: [0-9]+\n"
    "block major:     [0-9]+\n"
    "debug level:     1\n";
const std::string kSeeLog = " See the kernel log \\(dmesg\\) for the driver's message\\.\n";
const std::vector<std::string> kBitmapKeys = {"minor",   "kind",   "extent_size", "extent_cnt",
                                              "set_cnt", "ranges", "byte_ranges"};
const std::string kWrittenRanges =
    "extents 10-12 of 5120 \\(extent size 65536\\)\n"
    "bytes 655360-851967 \\(3 extents set\\)\n";
const std::string kUuid = "\\{[0-9a-f-]{36}\\}";
// The COW files that --cow-dir names after the snap's uuid.
const std::string kCowFiles = std::string("COW bitmap file: +") + kSnapCowDir +
                              "/trak-snap-[0-9a-f-]{36}\\.cow-bitmap\n"
                              "COW data file: +" +
                              kSnapCowDir + "/trak-snap-[0-9a-f-]{36}\\.cow-data\n";

const std::vector<VerbCase> kVerbCases = {
    {"StatusWithoutNodes",
     Start::kNoNode,
     {"status"},
     0,
     kStatusLines + "filter nodes:    none\nsnap nodes:      none\n",
     "",
     {"device", "chr_major", "blk_major", "debug", "filter", "snap", "snaps"},
     nullptr},
    {"StatusWithANode",
     Start::kStoppedNode,
     {"status"},
     0,
     kStatusLines + "filter nodes:    0\nsnap nodes:      none\n",
     "",
     {"device", "chr_major", "blk_major", "debug", "filter", "snap", "snaps"},
     nullptr},
    {"DebugShowsTheLevel",
     Start::kNoNode,
     {"debug"},
     0,
     "debug level: 1\n",
     "",
     {"debug"},
     nullptr},
    {"DebugSetsTheLevel",
     Start::kNoNode,
     {"debug", "3"},
     0,
     "",
     "",
     {},
     [](const ControlDevice&) { EXPECT_EQ(ReadText("/proc/trak/debug").text, "3\n"); }},
    {"ListBothTypes",
     Start::kStoppedNode,
     {"list"},
     0,
     "filter nodes: 0\nsnap nodes:   none\n",
     "",
     {"filter", "snap"},
     nullptr},
    {"ListFilters",
     Start::kStoppedNode,
     {"list", "filter"},
     0,
     "filter nodes: 0\n",
     "",
     {"filter"},
     nullptr},
    {"Info",
     Start::kStoppedNode,
     {"info", "0"},
     0,
     "minor: +0\ntype: +filter\ndevice size \\(bytes\\): +335544320\nstarted: +no\n"
     "open count: +0\nuuid: +\\{[0-9a-f-]{36}\\}\nname: +trak0\npartition: +/dev/vda\n"
     "extent size \\(bytes\\): +65536\nextents: +5120\n(.*\n)*",
     "",
     {"minor",          "dev_type",       "dev_size",       "started",       "use_cnt",
      "uuid",           "name",           "hdd_name",       "extent_size",   "extent_cnt",
      "snap_minors",    "snap_cnt",       "incr_bmp_size",  "diff_bmp_size", "incr_bmp_fname",
      "diff_bmp_fname", "incr_bmp_clear", "diff_bmp_clear", "incr_bmp_full", "diff_bmp_full",
      "snaps"},
     nullptr},
    {"InfoOfNoNode",
     Start::kNoNode,
     {"info", "7"},
     1,
     "",
     R"(trakctl: info 7: TRAK_GET_INFO failed: E[A-Z]+ \(.+\)\.)" + kSeeLog,
     {},
     nullptr},
    {"AddFilter",
     Start::kNoNode,
     {"add-filter", kTrackedDisk, "--extent-size", "65536", "--bitmap-dir", kBitmapDir},
     0,
     "minor: +0\nname: +trak0\nuuid: +\\{[0-9a-f-]{36}\\}\ndevice file: +/dev/trak/trak0\n"
     "disk device: +/dev/trak0\n",
     "",
     {"minor", "name", "uuid", "dev_name", "disk"},
     [](const ControlDevice& control) {
         const NodeInfo node = GetInfo(control, 0);
         ASSERT_EQ(node.error, 0);
         EXPECT_STREQ(node.info.hdd_name, kTrackedDisk);
         EXPECT_EQ(node.info.extent_size, kExtentSize);
     }},
    {"AddFilterTwiceOverOneDisk",
     Start::kStoppedNode,
     {"add-filter", kTrackedDisk, "--extent-size", "65536", "--bitmap-dir", kBitmapDir},
     1,
     "",
     R"(trakctl: add-filter /dev/vda: TRAK_ADD_FILTER_NODE failed: EINVAL \(.+\)\.)" + kSeeLog,
     {},
     nullptr},
    {"Start",
     Start::kStoppedNode,
     {"start", "0"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) { ExpectStarted(control, true); }},
    {"StartTwice",
     Start::kStartedNode,
     {"start", "0"},
     1,
     "",
     R"(trakctl: start 0: TRAK_START_NODE failed: EALREADY \(the node is already started\)\.)" +
         kSeeLog,
     {},
     nullptr},
    {"Stop",
     Start::kStartedNode,
     {"stop", "0"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) { ExpectStarted(control, false); }},
    {"Delete",
     Start::kStoppedNode,
     {"del", "0"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) { EXPECT_NE(GetInfo(control, 0).error, 0); }},
    {"BitmapGet",
     Start::kStartedNode,
     {"bitmap", "get", "0", "incr"},
     0,
     kWrittenRanges,
     "",
     kBitmapKeys,
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kIncremental, WrittenBits());
     }},
    {"BitmapGetToFile",
     Start::kStartedNode,
     {"bitmap", "get", "0", "diff", "--output", kRawBitmap},
     0,
     "",
     "",
     {},
     [](const ControlDevice&) {
         const std::vector<std::uint8_t> bits = WrittenBits();
         EXPECT_EQ(Slurp(kRawBitmap), std::string(bits.begin(), bits.end()));
     }},
    {"BitmapGetClear",
     Start::kStartedNode,
     {"bitmap", "get-clear", "0", "incr"},
     0,
     kWrittenRanges,
     "",
     kBitmapKeys,
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kIncremental, kNoBits);
         ExpectBitmap(control, BitmapKind::kDifferential, WrittenBits());
     }},
    {"BitmapClear",
     Start::kStartedNode,
     {"bitmap", "clear", "0", "diff"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kDifferential, kNoBits);
         ExpectBitmap(control, BitmapKind::kIncremental, WrittenBits());
     }},
    {"BitmapSave",
     Start::kStartedNode,
     {"bitmap", "save", "0", "incr"},
     0,
     "",
     "",
     {},
     [](const ControlDevice&) { EXPECT_TRUE(IsCleanBitmapFile(kIncrFile, WrittenBits())); }},
    {"BitmapLoad",
     Start::kFileOnDisk,
     {"bitmap", "load", "0", "incr"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kIncremental, FileBits());
     }},
    {"BitmapSetAll",
     Start::kStartedNode,
     {"bitmap", "set", "0", "incr", "--all"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kIncremental, kAllBits);
     }},
    {"BitmapSetFromFile",
     Start::kStartedNode,
     {"bitmap", "set", "0", "diff", "--input", kRawBitmap},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kDifferential, kAllBits);
     }},
    {"BitmapMerge",
     Start::kStartedNode,
     {"bitmap", "merge", "0", "incr", "--input", kRawBitmap},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) {
         ExpectBitmap(control, BitmapKind::kIncremental, kAllBits);
     }},
    {"BitmapOfNoNode",
     Start::kNoNode,
     {"bitmap", "get", "3", "incr"},
     1,
     "",
     R"(trakctl: bitmap get 3 incr: TRAK_[A-Z_]+ failed: E[A-Z]+ \(.+\)\.)" + kSeeLog,
     {},
     nullptr},
    {"TestDatablockOnExt2",
     Start::kExt2OnSpare,
     {"test-datablock", kSpareDisk},
     0,
     "",
     "",
     {},
     nullptr},
    {"TestDatablockOnBlankDisk",
     Start::kNoNode,
     {"test-datablock", kTrackedDisk},
     1,
     "",
     "trakctl: test-datablock /dev/vda: TRAK_TEST_DATABLOCK failed: EINVAL \\(the path is empty "
     "or not a block device, or the file system on it was not recognised or its bitmap is "
     "inconsistent\\)\\." +
         kSeeLog,
     {},
     nullptr},
    {"SnapAdd",
     Start::kStartedNode,
     {"snap", "add", "0", "--chunk-size", "65536", "--cow-dir", kSnapCowDir},
     0,
     "filter: +0\nminor: +1\nname: +trak1\nuuid: +" + kUuid + "\nchunk size \\(bytes\\): +65536\n" +
         kCowFiles + "device file: +/dev/trak/trak1\ndisk device: +/dev/trak1\n",
     "",
     {"filter_minor", "snap_minor", "name", "uuid", "chunk_size", "chunk_size_raised",
      "cow_bmp_fname", "cow_data_fname", "dev_name", "disk"},
     [](const ControlDevice& control) {
         const NodeInfo snap = GetInfo(control, kSnapMinor);
         ASSERT_EQ(snap.error, 0);
         EXPECT_EQ(snap.info.dev_type, static_cast<std::uint32_t>(TRAK_DEV_SNAP));
         EXPECT_EQ(snap.info.started, 0);
     }},
    {"SnapAddToNoFilter",
     Start::kNoNode,
     {"snap", "add", "4", "--chunk-size", "65536", "--cow-dir", kSnapCowDir},
     1,
     "",
     R"(trakctl: snap add 4: TRAK_ADD_SNAP_NODE failed: E[A-Z]+ \(.+\)\.)" + kSeeLog,
     {},
     nullptr},
    {"StartSnap",
     Start::kSnapAdded,
     {"start", "1"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) { ExpectStarted(control, true, kSnapMinor); }},
    {"SnapResume",
     Start::kSnapToResume,
     {"snap", "resume", "1"},
     0,
     "",
     "",
     {},
     [](const ControlDevice& control) {
         ExpectStarted(control, true, kSnapMinor);
         ExpectStarted(control, true, 0);
         EXPECT_EQ(GetInfo(control, kSnapMinor).info.snap_valid, 1U);
     }},
    {"SnapResumeOfAFilter",
     Start::kStoppedNode,
     {"snap", "resume", "0"},
     1,
     "",
     R"(trakctl: snap resume 0: TRAK_RESUME_SNAP failed: E[A-Z]+ \(.+\)\.)" + kSeeLog,
     {},
     nullptr},
    // Extent 0 holds the superblock and the first group's metadata.
    {"DatablockMap",
     Start::kSnapOfExt2,
     {"datablock-map", "1", "--extent-size", "65536"},
     0,
     "extents 0[-,][0-9,-]* of 5120 \\(extent size 65536\\)\n"
     "bytes 0-[0-9,-]+ \\([0-9]+ extents set\\)\n",
     "",
     {"minor", "extent_size", "extent_cnt", "set_cnt", "ranges", "byte_ranges"},
     nullptr},
    {"DatablockMapWithoutAFileSystem",
     Start::kSnapTaken,
     {"datablock-map", "1", "--extent-size", "65536"},
     1,
     "",
     "trakctl: datablock-map 1: TRAK_GET_DATABLOCK_BMP failed: ENOMEM \\(the snap's file system "
     "was not recognised, so it has no data-block map \\(or the driver ran out of memory\\)\\)\\." +
         kSeeLog,
     {},
     nullptr},
    {"DatablockMapOfAFilter",
     Start::kStartedNode,
     {"datablock-map", "0", "--extent-size", "65536"},
     1,
     "",
     R"(trakctl: datablock-map 0: TRAK_GET_DATABLOCK_BMP failed: E[A-Z]+ \(.+\)\.)" + kSeeLog,
     {},
     nullptr},
    {"UnknownVerb",
     Start::kNoNode,
     {"frobnicate"},
     2,
     "",
     "trakctl: unknown verb 'frobnicate'\nTry 'trakctl --help'\\.\n",
     {},
     nullptr},
    {"MissingArgument",
     Start::kNoNode,
     {"start"},
     2,
     "",
     "trakctl: start: missing argument\nTry 'trakctl start --help'\\.\n",
     {},
     nullptr},
};

class TrakctlSmokeTest : public SnapTest, public ::testing::WithParamInterface<VerbCase> {
  protected:
    static_assert(std::string_view(kCowDir) == kSnapCowDir);

    // Reloads the driver and builds `start` (fatal failure otherwise).
    void Prepare(Start start) {
        ASSERT_EQ(UnloadDriver(), 0);
        std::filesystem::remove_all(bmp_dir());
        std::filesystem::create_directories(bmp_dir());
        ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
        // No file system an earlier case made on the tracked disk is left
        // for the data-block map to find.
        ASSERT_TRUE(Succeeds({"dd", "if=/dev/zero", std::string("of=") + kTrackedDisk, "bs=64k",
                              "count=16", "oflag=direct"}));
        // No COW file of an earlier case is left for a snap to find.
        for (const auto& entry : std::filesystem::directory_iterator(kCowDir)) {
            if (entry.path().filename() != "lost+found") {
                std::filesystem::remove(entry.path());
            }
        }
        // A raw bitmap of all ones for the verbs that read one.
        std::ofstream(kRawBitmap, std::ios::binary)
            << std::string(kBitmapBytes, static_cast<char>(0xff));
        switch (start) {
            case Start::kNoNode:
                break;
            case Start::kExt2OnSpare:
                // The spare disk holds the COW file system until now.
                ASSERT_EQ(Unmount(kCowDir), 0);
                ASSERT_TRUE(Succeeds({"mkfs.ext2", "-q", "-F", kSpareDisk}));
                break;
            case Start::kStoppedNode:
                ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtentSize, 0, false));
                break;
            case Start::kStartedNode:
                ASSERT_NO_FATAL_FAILURE(StartWrittenNode());
                break;
            case Start::kSnapAdded:
                ASSERT_NO_FATAL_FAILURE(StartWrittenNode());
                ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunkSize, kSnapMinor));
                break;
            case Start::kSnapTaken:
                ASSERT_NO_FATAL_FAILURE(StartWrittenNode());
                ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunkSize, kSnapMinor));
                break;
            case Start::kSnapOfExt2:
                ASSERT_TRUE(Succeeds({"mkfs.ext2", "-q", "-F", kTrackedDisk}));
                ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtentSize, 0, true));
                ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunkSize, kSnapMinor));
                break;
            case Start::kSnapToResume:
                ASSERT_NO_FATAL_FAILURE(StartWrittenNode());
                ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunkSize, kSnapMinor));
                ASSERT_EQ(StopNode(control(), kSnapMinor), 0);
                ASSERT_EQ(UnloadDriver(), 0);
                ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
                ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtentSize, 0, false));
                ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunkSize, kSnapMinor));
                break;
            case Start::kFileOnDisk:
                // Not started: no write, so nothing else touches the file.
                ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtentSize, 0, false));
                ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
                ASSERT_EQ(WriteWholeFile(kIncrFile, EncodeCleanBitmapFile(FileBits())), 0);
                break;
        }
    }

    // kStartedNode.
    void StartWrittenNode() {
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtentSize, 0, true));
        ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
        ASSERT_TRUE(Succeeds({"dd", "if=/dev/urandom", "of=" + NodeDevice(0), "bs=64k",
                              "count=" + std::to_string(kWrittenExtents),
                              "seek=" + std::to_string(kFirstWritten), "oflag=direct"}));
    }

    static void ExpectOutput(const std::vector<std::string>& args, const Output& got,
                             const VerbCase& c) {
        const std::string what = Joined(args);
        EXPECT_EQ(got.status, c.status) << what << "\nstdout:\n"
                                        << got.out << "stderr:\n"
                                        << got.err;
        EXPECT_TRUE(std::regex_match(got.err, std::regex(c.err))) << what << " wrote to stderr:\n"
                                                                  << got.err;
        if (args.back() != "--json") {
            EXPECT_TRUE(std::regex_match(got.out, std::regex(c.out))) << what << " printed:\n"
                                                                      << got.out;
            return;
        }
        try {
            const trak_test::JsonValue json = trak_test::parse_json(got.out);
            // Every object leads with the version of its format.
            std::vector<std::string> keys = {"format_version"};
            keys.insert(keys.end(), c.json_keys.begin(), c.json_keys.end());
            EXPECT_EQ(json.keys, keys) << what << " printed:\n" << got.out;
            EXPECT_EQ(json.at("format_version").text, "1") << what << " printed:\n" << got.out;
        } catch (const std::exception& e) {
            ADD_FAILURE() << what << " printed no JSON (" << e.what() << "):\n" << got.out;
        }
    }
};

TEST_P(TrakctlSmokeTest, Verb) {
    const VerbCase& c = GetParam();
    ASSERT_NO_FATAL_FAILURE(Prepare(c.start));
    ExpectOutput(c.args, RunTrakctl(c.args), c);
    if (c.after) {
        c.after(control());
    }
    if (!c.json_keys.empty()) {
        ASSERT_NO_FATAL_FAILURE(Prepare(c.start));
        std::vector<std::string> args = c.args;
        args.emplace_back("--json");
        ExpectOutput(args, RunTrakctl(args), c);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryVerb, TrakctlSmokeTest, ::testing::ValuesIn(kVerbCases),
                         [](const ::testing::TestParamInfo<VerbCase>& info) {
                             return info.param.name;
                         });

}  // namespace
}  // namespace trak::vmtest
