// The control device's ABI: command codes, their encoding and the record
// layouts, checked against the numbers of the driver's command table and
// record tables (not against the header's own compile-time checks).
#include <asm/ioctl.h>
#include <gtest/gtest.h>
#include <trak/command.h>
#include <trak_ioctl.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace {

constexpr unsigned kWrite = _IOC_WRITE;
constexpr unsigned kReadWrite = _IOC_READ | _IOC_WRITE;

struct CommandRow {
    trak::Command command;
    std::string_view name;
    unsigned long code;
    unsigned direction;
    std::size_t record_size;
    unsigned long header_code;       // the header's macro
    std::size_t header_record_size;  // sizeof the header's record
};

#define ROW(cmd, name, code, dir, bytes, record) \
    CommandRow { trak::Command::cmd, #name, code, dir, bytes, name, sizeof(record) }

const std::array kCommandRows = {
    ROW(AddFilterNode, TRAK_ADD_FILTER_NODE, 0xC8B04301, kReadWrite, 2224, trak_add_filter_args),
    ROW(AddSnapNode, TRAK_ADD_SNAP_NODE, 0xC8B44302, kReadWrite, 2228, trak_add_snap_args),
    ROW(DelNode, TRAK_DEL_NODE, 0x40044303, kWrite, 4, trak_minor_args),
    ROW(StartNode, TRAK_START_NODE, 0x40044304, kWrite, 4, trak_minor_args),
    ROW(StopNode, TRAK_STOP_NODE, 0x40044305, kWrite, 4, trak_minor_args),
    ROW(GetDeviceList, TRAK_GET_DEVICE_LIST, 0xC4084306, kReadWrite, 1032, trak_device_list_args),
    ROW(GetInfo, TRAK_GET_INFO, 0xD9084307, kReadWrite, 6408, trak_info_args),
    ROW(LoadBmp, TRAK_LOAD_BMP, 0x40084308, kWrite, 8, trak_bmp_args),
    ROW(SaveBmp, TRAK_SAVE_BMP, 0x40084309, kWrite, 8, trak_bmp_args),
    ROW(ClrBmp, TRAK_CLR_BMP, 0x4008430A, kWrite, 8, trak_bmp_args),
    ROW(SetBmp, TRAK_SET_BMP, 0x4018430B, kWrite, 24, trak_bmp_data_args),
    ROW(MergeBmp, TRAK_MERGE_BMP, 0x4018430C, kWrite, 24, trak_bmp_data_args),
    ROW(GetBmp, TRAK_GET_BMP, 0xC018430D, kReadWrite, 24, trak_bmp_data_args),
    ROW(GetAndClrBmp, TRAK_GET_AND_CLR_BMP, 0xC018430E, kReadWrite, 24, trak_bmp_data_args),
    ROW(GetDatablockBmp, TRAK_GET_DATABLOCK_BMP, 0xC018430F, kReadWrite, 24,
        trak_datablock_bmp_args),
    ROW(TestDatablock, TRAK_TEST_DATABLOCK, 0x44004310, kWrite, 1024, trak_test_datablock_args),
    ROW(ResumeSnap, TRAK_RESUME_SNAP, 0x40104311, kWrite, 16, trak_resume_snap_args),
};

#undef ROW

TEST(CommandAbi, TableCoversEveryCommandInOrder) {
    ASSERT_EQ(kCommandRows.size(), trak::kAllCommands.size());
    for (std::size_t i = 0; i < kCommandRows.size(); ++i) {
        EXPECT_EQ(kCommandRows.at(i).command, trak::kAllCommands.at(i)) << "row " << i;
        EXPECT_EQ(static_cast<unsigned>(kCommandRows.at(i).command), i + 1) << "row " << i;
    }
}

TEST(CommandAbi, CodesAreTheLiteralCodes) {
    for (const CommandRow& row : kCommandRows) {
        EXPECT_EQ(row.header_code, row.code) << row.name;
        EXPECT_EQ(trak::command_code(row.command), row.code) << row.name;
        EXPECT_EQ(trak::command_name(row.command), row.name);
    }
}

TEST(CommandAbi, CodesDecodeToRecordSizeDirectionNumberAndType) {
    for (const CommandRow& row : kCommandRows) {
        EXPECT_EQ(_IOC_TYPE(row.code), static_cast<unsigned>('C')) << row.name;
        EXPECT_EQ(_IOC_NR(row.code), static_cast<unsigned>(row.command)) << row.name;
        EXPECT_EQ(_IOC_DIR(row.code), row.direction) << row.name;
        EXPECT_EQ(_IOC_SIZE(row.code), row.record_size) << row.name;
        EXPECT_EQ(row.header_record_size, row.record_size) << row.name;
    }
}

struct FieldRow {
    std::string_view field;
    std::size_t offset;
    std::size_t size;
    std::size_t expected_offset;
    std::size_t expected_size;
};

#define FIELD(record, member, off, bytes) \
    FieldRow { #record "." #member, offsetof(record, member), sizeof(record::member), off, bytes }

const std::array kFieldRows = {
    FIELD(trak_add_filter_args, hdd_name, 0, 1024),
    FIELD(trak_add_filter_args, minor, 1024, 4),
    FIELD(trak_add_filter_args, extent_size, 1028, 4),
    FIELD(trak_add_filter_args, bmp_dir, 1032, 1024),
    FIELD(trak_add_filter_args, uuid, 2056, 39),
    FIELD(trak_add_filter_args, name, 2095, 129),

    FIELD(trak_add_snap_args, filter_minor, 0, 4),
    FIELD(trak_add_snap_args, snap_minor, 4, 4),
    FIELD(trak_add_snap_args, chunk_size, 8, 4),
    FIELD(trak_add_snap_args, cow_bmp_fname, 12, 1024),
    FIELD(trak_add_snap_args, cow_data_fname, 1036, 1024),
    FIELD(trak_add_snap_args, uuid, 2060, 39),
    FIELD(trak_add_snap_args, name, 2099, 128),
    FIELD(trak_add_snap_args, pad, 2227, 1),

    FIELD(trak_minor_args, minor, 0, 4),

    FIELD(trak_device_list_args, dev_type, 0, 4),
    FIELD(trak_device_list_args, count, 4, 4),
    FIELD(trak_device_list_args, minors, 8, 1024),

    FIELD(trak_info_args, minor, 0, 4),
    FIELD(trak_info_args, dev_type, 4, 4),
    FIELD(trak_info_args, dev_size, 8, 8),
    FIELD(trak_info_args, started, 16, 4),
    FIELD(trak_info_args, use_cnt, 20, 4),
    FIELD(trak_info_args, uuid, 24, 39),
    FIELD(trak_info_args, name, 63, 128),
    FIELD(trak_info_args, hdd_name, 191, 1024),
    FIELD(trak_info_args, pad1, 1215, 1),
    FIELD(trak_info_args, extent_size, 1216, 4),
    FIELD(trak_info_args, extent_cnt, 1220, 4),
    FIELD(trak_info_args, snap_minors, 1224, 1024),
    FIELD(trak_info_args, snap_cnt, 2248, 4),
    FIELD(trak_info_args, incr_bmp_size, 2252, 4),
    FIELD(trak_info_args, diff_bmp_size, 2256, 4),
    FIELD(trak_info_args, incr_bmp_fname, 2260, 1024),
    FIELD(trak_info_args, diff_bmp_fname, 3284, 1024),
    FIELD(trak_info_args, incr_bmp_clear, 4308, 4),
    FIELD(trak_info_args, diff_bmp_clear, 4312, 4),
    FIELD(trak_info_args, incr_bmp_full, 4316, 4),
    FIELD(trak_info_args, diff_bmp_full, 4320, 4),
    FIELD(trak_info_args, snap_valid, 4324, 4),
    FIELD(trak_info_args, stop_pending, 4328, 4),
    FIELD(trak_info_args, del_pending, 4332, 4),
    FIELD(trak_info_args, chunk_size, 4336, 4),
    FIELD(trak_info_args, cow_chunks, 4340, 4),
    FIELD(trak_info_args, cow_bmp_size, 4344, 4),
    FIELD(trak_info_args, pad2, 4348, 4),
    FIELD(trak_info_args, cow_data_size, 4352, 8),
    FIELD(trak_info_args, cow_bmp_fname, 4360, 1024),
    FIELD(trak_info_args, cow_data_fname, 5384, 1024),

    FIELD(trak_bmp_args, minor, 0, 4),
    FIELD(trak_bmp_args, kind, 4, 4),

    FIELD(trak_bmp_data_args, minor, 0, 4),
    FIELD(trak_bmp_data_args, kind, 4, 4),
    FIELD(trak_bmp_data_args, size, 8, 4),
    FIELD(trak_bmp_data_args, pad, 12, 4),
    FIELD(trak_bmp_data_args, data, 16, 8),

    FIELD(trak_datablock_bmp_args, minor, 0, 4),
    FIELD(trak_datablock_bmp_args, extent_size, 4, 4),
    FIELD(trak_datablock_bmp_args, bmp_size, 8, 4),
    FIELD(trak_datablock_bmp_args, pad, 12, 4),
    FIELD(trak_datablock_bmp_args, bmp_data, 16, 8),

    FIELD(trak_test_datablock_args, hdd_name, 0, 1024),

    FIELD(trak_resume_snap_args, snap_minor, 0, 4),
    FIELD(trak_resume_snap_args, snap_valid, 4, 4),
    FIELD(trak_resume_snap_args, stop_pending, 8, 4),
    FIELD(trak_resume_snap_args, del_pending, 12, 4),
};

#undef FIELD

TEST(RecordAbi, FieldsSitAtTheirOffsetsWithTheirSizes) {
    for (const FieldRow& row : kFieldRows) {
        EXPECT_EQ(row.offset, row.expected_offset) << row.field;
        EXPECT_EQ(row.size, row.expected_size) << row.field;
    }
}

TEST(RecordAbi, ConstantsMatchTheDriver) {
    EXPECT_EQ(TRAK_DEV_FILTER, 1);
    EXPECT_EQ(TRAK_DEV_SNAP, 2);
    EXPECT_EQ(TRAK_BMP_INCR, 1);
    EXPECT_EQ(TRAK_BMP_DIFF, 0);
    EXPECT_EQ(TRAK_MAX_LISTED, 256);
}

}  // namespace
