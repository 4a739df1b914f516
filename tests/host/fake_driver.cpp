#include "fake_driver.h"

#include <asm/ioctl.h>

#include <cerrno>

namespace trak_test {

namespace {

class FakeChannel final : public trak::IoctlChannel {
  public:
    explicit FakeChannel(FakeDriver& driver) : driver_(driver) {}
    int ioctl(unsigned long request, void* arg) override { return driver_.handle(request, arg); }

  private:
    FakeDriver& driver_;
};

}  // namespace

void FakeDriver::add_node(const trak_info_args& record) { nodes_[record.minor] = record; }

void FakeDriver::on(trak::Command command, Handler handler) {
    handlers_[command] = std::move(handler);
}

std::unique_ptr<trak::IoctlChannel> FakeDriver::channel() {
    return std::make_unique<FakeChannel>(*this);
}

int FakeDriver::handle(unsigned long request, void* record) {
    requests_.push_back(request);
    for (const trak::Command command : trak::kAllCommands) {
        if (trak::command_code(command) != request) {
            continue;
        }
        const auto* bytes = static_cast<const std::uint8_t*>(record);
        last_record_.assign(bytes, bytes + _IOC_SIZE(request));
        records_[command] = last_record_;
        if (const auto handler = handlers_.find(command); handler != handlers_.end()) {
            return handler->second(record);
        }
        if (command == trak::Command::GetDeviceList) {
            return device_list(*static_cast<trak_device_list_args*>(record));
        }
        if (command == trak::Command::GetInfo) {
            return info(*static_cast<trak_info_args*>(record));
        }
        return -ENOSYS;
    }
    return -ENOTTY;
}

int FakeDriver::device_list(trak_device_list_args& record) const {
    if (record.dev_type != TRAK_DEV_FILTER && record.dev_type != TRAK_DEV_SNAP) {
        return -EINVAL;
    }
    record.count = 0;
    for (const auto& [minor, node] : nodes_) {
        if (node.dev_type == record.dev_type) {
            record.minors[record.count++] = minor;
        }
    }
    return 0;
}

int FakeDriver::info(trak_info_args& record) const {
    const auto node = nodes_.find(record.minor);
    if (node == nodes_.end()) {
        return -EINVAL;
    }
    record = node->second;
    return 0;
}

trak_info_args filter_record(std::int32_t minor) {
    trak_info_args record{};
    record.minor = minor;
    record.dev_type = TRAK_DEV_FILTER;
    record.dev_size = 1073741824;
    record.started = 1;
    record.use_cnt = 2;
    set_string(record.uuid, "{0123abcd-4567-89ef-0123-456789abcdef}");
    set_string(record.name, "data");
    set_string(record.hdd_name, "/dev/vdb1");
    record.extent_size = 65536;
    record.extent_cnt = 16384;
    record.snap_minors[0] = 4;
    record.snap_minors[1] = 6;
    record.snap_cnt = 2;
    record.incr_bmp_size = 2048;
    record.diff_bmp_size = 2048;
    set_string(record.incr_bmp_fname, "/var/lib/trak/trak0.incr");
    set_string(record.diff_bmp_fname, "/var/lib/trak/trak0.diff");
    record.incr_bmp_clear = 1;
    record.diff_bmp_clear = 0;
    record.incr_bmp_full = 0;
    record.diff_bmp_full = 1;
    return record;
}

trak_info_args snap_record(std::int32_t minor) {
    trak_info_args record{};
    record.minor = minor;
    record.dev_type = TRAK_DEV_SNAP;
    record.dev_size = 1073741824;
    record.started = 0;
    record.use_cnt = 0;
    set_string(record.uuid, "{fedcba98-7654-3210-fedc-ba9876543210}");
    set_string(record.name, "trak4");
    record.snap_valid = 1;
    record.stop_pending = 0;
    record.del_pending = 1;
    record.chunk_size = 4096;
    record.cow_chunks = 262144;
    record.cow_bmp_size = 32768;
    record.cow_data_size = 1073741824;
    set_string(record.cow_bmp_fname, "/srv/cow/snap.bmp");
    set_string(record.cow_data_fname, "/srv/cow/snap \"1\".data");
    return record;
}

}  // namespace trak_test
