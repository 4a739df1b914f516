// libtrak's typed commands against a fake driver: what goes into the
// records, what comes out of them, and how refusals surface.
#include <gtest/gtest.h>
#include <trak/control.h>
#include <trak/error.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "fake_driver.h"
#include "record_bytes.h"

namespace {

using trak::BitmapKind;
using trak::Command;
using trak_test::FakeDriver;
using trak_test::field_at;
using trak_test::string_at;

class ControlTest : public ::testing::Test {
  protected:
    FakeDriver driver;
    trak::Control control{driver.channel()};
};

TEST_F(ControlTest, InfoOfAFilterFillsTheFilterPartOnly) {
    trak_info_args record = trak_test::filter_record(3);
    record.snap_minors[2] = 99;  // beyond snap_cnt: not a snap of this filter
    driver.add_node(record);

    const trak::Info info = control.info(3);

    EXPECT_EQ(driver.requests(), std::vector<unsigned long>{0xD9084307});
    EXPECT_EQ(field_at<std::int32_t>(driver.last_record(), 0), 3);
    EXPECT_EQ(info.minor, 3);
    EXPECT_EQ(info.dev_type, trak::DevType::Filter);
    EXPECT_EQ(info.dev_size, 1073741824U);
    EXPECT_TRUE(info.started);
    EXPECT_EQ(info.use_cnt, 2);
    EXPECT_EQ(info.uuid, "{0123abcd-4567-89ef-0123-456789abcdef}");
    EXPECT_EQ(info.name, "data");
    ASSERT_TRUE(info.filter.has_value());
    EXPECT_FALSE(info.snap.has_value());
    EXPECT_EQ(info.filter->hdd_name, "/dev/vdb1");
    EXPECT_EQ(info.filter->extent_size, 65536U);
    EXPECT_EQ(info.filter->extent_cnt, 16384U);
    EXPECT_EQ(info.filter->snap_minors, (std::vector<std::int32_t>{4, 6}));
    EXPECT_EQ(info.filter->incr_bmp_size, 2048U);
    EXPECT_EQ(info.filter->diff_bmp_fname, "/var/lib/trak/trak0.diff");
    EXPECT_TRUE(info.filter->incr_bmp_clear);
    EXPECT_FALSE(info.filter->diff_bmp_clear);
    EXPECT_FALSE(info.filter->incr_bmp_full);
    EXPECT_TRUE(info.filter->diff_bmp_full);
}

TEST_F(ControlTest, InfoOfASnapFillsTheSnapPartOnly) {
    driver.add_node(trak_test::snap_record(4));

    const trak::Info info = control.info(4);

    EXPECT_EQ(info.dev_type, trak::DevType::Snap);
    EXPECT_FALSE(info.filter.has_value());
    ASSERT_TRUE(info.snap.has_value());
    EXPECT_TRUE(info.snap->snap_valid);
    EXPECT_FALSE(info.snap->stop_pending);
    EXPECT_TRUE(info.snap->del_pending);
    EXPECT_EQ(info.snap->chunk_size, 4096U);
    EXPECT_EQ(info.snap->cow_chunks, 262144U);
    EXPECT_EQ(info.snap->cow_bmp_size, 32768U);
    EXPECT_EQ(info.snap->cow_data_size, 1073741824U);
    EXPECT_EQ(info.snap->cow_bmp_fname, "/srv/cow/snap.bmp");
}

TEST_F(ControlTest, StringsFillingTheirWholeFieldAreReadToTheFieldsEnd) {
    trak_info_args record = trak_test::filter_record(0);
    std::memset(record.name, 'n', sizeof record.name);
    driver.add_node(record);

    EXPECT_EQ(control.info(0).name, std::string(128, 'n'));
}

TEST_F(ControlTest, InfoOfAnUnknownMinorThrowsTheDispatchersMeaning) {
    try {
        control.info(7);
        FAIL() << "no exception";
    } catch (const trak::DriverError& error) {
        EXPECT_EQ(error.command(), Command::GetInfo);
        EXPECT_EQ(error.value(), EINVAL);
        EXPECT_STREQ(error.what(),
                     "TRAK_GET_INFO failed: EINVAL (no node with that minor). See the kernel log "
                     "(dmesg) for the driver's message.");
    }
}

TEST_F(ControlTest, DeviceListSendsTheTypeAndReturnsTheMinors) {
    driver.add_node(trak_test::filter_record(0));
    driver.add_node(trak_test::snap_record(1));
    driver.add_node(trak_test::filter_record(5));

    EXPECT_EQ(control.device_list(trak::DevType::Filter), (std::vector<std::int32_t>{0, 5}));
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 0), 1U);
    EXPECT_EQ(control.device_list(trak::DevType::Snap), (std::vector<std::int32_t>{1}));
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 0), 2U);
    EXPECT_EQ(driver.requests(), (std::vector<unsigned long>{0xC4084306, 0xC4084306}));
}

TEST_F(ControlTest, AddFilterFillsTheRecordAndReturnsWhatTheDriverChose) {
    driver.on(Command::AddFilterNode, [](void* arg) {
        auto& rec = *static_cast<trak_add_filter_args*>(arg);
        rec.minor = 2;
        std::strcpy(rec.uuid, "{00000000-1111-2222-3333-444444444444}");
        std::strcpy(rec.name, "trak2");
        return 0;
    });

    const trak::NodeId node = control.add_filter({.hdd_name = "/dev/vdc",
                                                  .minor = -1,
                                                  .extent_size = 4096,
                                                  .bmp_dir = "/var/lib/x///",
                                                  .uuid = "",
                                                  .name = ""});

    EXPECT_EQ(driver.requests(), std::vector<unsigned long>{0xC8B04301});
    const std::vector<std::uint8_t>& sent = driver.last_record();
    EXPECT_EQ(string_at(sent, 0), "/dev/vdc");
    EXPECT_EQ(field_at<std::int32_t>(sent, 1024), -1);
    EXPECT_EQ(field_at<std::uint32_t>(sent, 1028), 4096U);
    EXPECT_EQ(string_at(sent, 1032), "/var/lib/x///");
    EXPECT_EQ(string_at(sent, 2056), "");
    EXPECT_EQ(string_at(sent, 2095), "");
    EXPECT_EQ(node.minor, 2);
    EXPECT_EQ(node.uuid, "{00000000-1111-2222-3333-444444444444}");
    EXPECT_EQ(node.name, "trak2");
}

TEST_F(ControlTest, AddFilterRefusedLeavesNothingBehindAndThrows) {
    driver.on(Command::AddFilterNode, [](void*) { return -EBUSY; });

    try {
        control.add_filter({.hdd_name = "/dev/vdc", .extent_size = 4096, .bmp_dir = "/tmp"});
        FAIL() << "no exception";
    } catch (const trak::DriverError& error) {
        EXPECT_STREQ(error.what(),
                     "TRAK_ADD_FILTER_NODE failed: EBUSY (the partition is mounted or already "
                     "open). See the kernel log (dmesg) for the driver's message.");
    }
}

TEST_F(ControlTest, TooLongStringsAreRefusedBeforeAnythingIsSent) {
    EXPECT_THROW(control.add_filter({.hdd_name = std::string(1024, 'x'), .bmp_dir = "/tmp"}),
                 std::length_error);
    EXPECT_THROW(
        control.add_filter(
            {.hdd_name = "/dev/vdc", .bmp_dir = "/tmp", .uuid = std::string(39, 'u'), .name = ""}),
        std::length_error);
    EXPECT_THROW(control.test_datablock(std::string(1024, 'p')), std::length_error);
    EXPECT_TRUE(driver.requests().empty());
}

TEST_F(ControlTest, LongestFittingStringIsSentWhole) {
    driver.on(Command::TestDatablock, [](void*) { return 0; });

    control.test_datablock(std::string(1023, 'p'));

    EXPECT_EQ(string_at(driver.last_record(), 0), std::string(1023, 'p'));
}

TEST_F(ControlTest, AddSnapReturnsTheRaisedChunkSize) {
    driver.on(Command::AddSnapNode, [](void* arg) {
        auto& rec = *static_cast<trak_add_snap_args*>(arg);
        rec.snap_minor = 9;
        rec.chunk_size = 8192;
        std::strcpy(rec.uuid, "{aaaaaaaa-1111-2222-3333-444444444444}");
        std::strcpy(rec.name, "trak9");
        return 0;
    });

    const trak::SnapNode snap = control.add_snap({.filter_minor = 1,
                                                  .snap_minor = -1,
                                                  .chunk_size = 4096,
                                                  .cow_bmp_fname = "/c/bmp",
                                                  .cow_data_fname = "/c/data",
                                                  .uuid = "",
                                                  .name = "s"});

    const std::vector<std::uint8_t>& sent = driver.last_record();
    EXPECT_EQ(field_at<std::uint32_t>(sent, 0), 1U);
    EXPECT_EQ(field_at<std::int32_t>(sent, 4), -1);
    EXPECT_EQ(field_at<std::uint32_t>(sent, 8), 4096U);
    EXPECT_EQ(string_at(sent, 12), "/c/bmp");
    EXPECT_EQ(string_at(sent, 1036), "/c/data");
    EXPECT_EQ(string_at(sent, 2099), "s");
    EXPECT_EQ(snap.id.minor, 9);
    EXPECT_EQ(snap.id.name, "trak9");
    EXPECT_EQ(snap.chunk_size, 8192U);
}

TEST_F(ControlTest, DelNodeOfAnUnknownMinorThrowsOnThePositive22) {
    driver.on(Command::DelNode, [](void*) { return 22; });

    try {
        control.del_node(8);
        FAIL() << "no exception";
    } catch (const trak::DriverError& error) {
        EXPECT_EQ(error.kind(), trak::FailureKind::PositiveReturn);
        EXPECT_EQ(error.value(), 22);
        EXPECT_EQ(error.meaning(), "no such node");
    }
    EXPECT_EQ(field_at<std::int32_t>(driver.last_record(), 0), 8);
}

TEST_F(ControlTest, StartAndStopSendTheMinor) {
    driver.on(Command::StartNode, [](void*) { return 0; });
    driver.on(Command::StopNode, [](void*) { return -EBUSY; });

    control.start(5);
    EXPECT_EQ(field_at<std::int32_t>(driver.last_record(), 0), 5);
    EXPECT_THROW(control.stop(5), trak::DriverError);
    EXPECT_EQ(driver.requests(), (std::vector<unsigned long>{0x40044304, 0x40044305}));
}

TEST_F(ControlTest, ResumeSnapSendsTheFlags) {
    driver.on(Command::ResumeSnap, [](void*) { return 0; });

    control.resume_snap(
        {.snap_minor = 4, .snap_valid = true, .stop_pending = false, .del_pending = true});

    const std::vector<std::uint8_t>& sent = driver.last_record();
    EXPECT_EQ(field_at<std::uint32_t>(sent, 0), 4U);
    EXPECT_EQ(field_at<std::uint32_t>(sent, 4), 1U);
    EXPECT_EQ(field_at<std::uint32_t>(sent, 8), 0U);
    EXPECT_EQ(field_at<std::uint32_t>(sent, 12), 1U);
}

TEST_F(ControlTest, ShortBitmapCommandsSendMinorAndKind) {
    driver.on(Command::LoadBmp, [](void*) { return 0; });
    driver.on(Command::SaveBmp, [](void*) { return 0; });
    driver.on(Command::ClrBmp, [](void*) { return 0; });

    control.load_bitmap(3, BitmapKind::Incremental);
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 4), 1U);
    control.save_bitmap(3, BitmapKind::Differential);
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 4), 0U);
    control.clear_bitmap(3, BitmapKind::Incremental);
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 0), 3U);
    EXPECT_EQ(driver.requests(), (std::vector<unsigned long>{0x40084308, 0x40084309, 0x4008430A}));
}

TEST_F(ControlTest, GetBitmapIsSizedFromInfoAndFilledByTheDriver) {
    driver.add_node(trak_test::filter_record(0));
    driver.on(Command::GetBmp, [](void* arg) {
        const auto& rec = *static_cast<trak_bmp_data_args*>(arg);
        if (rec.size != 2048 || rec.kind != TRAK_BMP_INCR) {
            return -EINVAL;
        }
        auto* bits = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(rec.data));
        bits[0] = 0x81;
        bits[2047] = 0x7E;
        return 0;
    });

    const std::vector<std::uint8_t> bits = control.get_bitmap(0, BitmapKind::Incremental);

    ASSERT_EQ(bits.size(), 2048U);
    EXPECT_EQ(bits[0], 0x81);
    EXPECT_EQ(bits[1], 0);
    EXPECT_EQ(bits[2047], 0x7E);
    EXPECT_EQ(driver.requests(), (std::vector<unsigned long>{0xD9084307, 0xC018430D}));
}

TEST_F(ControlTest, SetBitmapPassesTheCallersBytes) {
    const std::vector<std::uint8_t> bits = {1, 2, 3};
    std::vector<std::uint8_t> seen;
    driver.on(Command::SetBmp, [&seen](void* arg) {
        const auto& rec = *static_cast<trak_bmp_data_args*>(arg);
        const auto* data =
            reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(rec.data));
        seen.assign(data, data + rec.size);
        return 0;
    });

    control.set_bitmap(0, BitmapKind::Differential, bits);

    EXPECT_EQ(seen, bits);
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 4), 0U);
}

TEST_F(ControlTest, SetBitmapRefusesAnEmptyBitmapRatherThanSettingEveryBit) {
    EXPECT_THROW(control.set_bitmap(0, BitmapKind::Incremental, {}), std::invalid_argument);
    EXPECT_TRUE(driver.requests().empty());
}

TEST_F(ControlTest, SetBitmapAllSendsNoSizeAndNoAddress) {
    driver.on(Command::SetBmp, [](void*) { return 0; });

    control.set_bitmap_all(0, BitmapKind::Incremental);

    EXPECT_EQ(field_at<std::int32_t>(driver.last_record(), 8), 0);
    EXPECT_EQ(field_at<std::uint64_t>(driver.last_record(), 16), 0U);
}

TEST_F(ControlTest, MergeAndGetAndClearUseTheirOwnCommands) {
    driver.on(Command::MergeBmp, [](void*) { return 0; });
    driver.on(Command::GetAndClrBmp, [](void*) { return -EINVAL; });
    const std::vector<std::uint8_t> bits(16, 0xFF);
    std::vector<std::uint8_t> out(16);

    control.merge_bitmap(1, BitmapKind::Incremental, bits);
    EXPECT_EQ(field_at<std::int32_t>(driver.last_record(), 8), 16);
    EXPECT_THROW(control.get_and_clear_bitmap(1, BitmapKind::Incremental, out), trak::DriverError);
    EXPECT_EQ(driver.requests(), (std::vector<unsigned long>{0x4018430C, 0xC018430E}));
}

TEST_F(ControlTest, DatablockBitmapIsSizedForTheExtentsAndCutToWhatWasWritten) {
    trak_info_args snap = trak_test::snap_record(4);
    snap.cow_chunks = 100;  // 4096-byte chunks: 13 extents of 32 KiB, 2 bytes
    driver.add_node(snap);
    std::int32_t offered = 0;
    driver.on(Command::GetDatablockBmp, [&offered](void* arg) {
        auto& rec = *static_cast<trak_datablock_bmp_args*>(arg);
        offered = rec.bmp_size;
        *reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(rec.bmp_data)) = 0xA5;
        rec.bmp_size = 1;
        return 0;
    });

    const std::vector<std::uint8_t> bits = control.datablock_bitmap(4, 32768);

    EXPECT_EQ(offered, 2);
    EXPECT_EQ(bits, std::vector<std::uint8_t>{0xA5});
    EXPECT_EQ(field_at<std::uint32_t>(driver.last_record(), 4), 32768U);
}

TEST_F(ControlTest, RawIoctlReturnsTheErrorInsteadOfThrowing) {
    trak_minor_args rec{.minor = 0};
    EXPECT_EQ(control.ioctl_raw(0x40044306, &rec), -ENOTTY);
    EXPECT_EQ(control.ioctl_raw(0x40044304, &rec), -ENOSYS);
}

TEST(ControlDevice, OpeningAMissingDeviceThrowsWithThePath) {
    try {
        trak::Control control("/nonexistent/trakctl");
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
        EXPECT_EQ(std::string(error.what()),
                  "cannot open the control device /nonexistent/trakctl (is the trak module "
                  "loaded?): No such file or directory");
    }
}

}  // namespace
