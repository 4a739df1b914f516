// A stand-in for the driver behind the control device, for host tests.
#pragma once

#include <trak/channel.h>
#include <trak/command.h>
#include <trak_ioctl.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

namespace trak_test {

// Answers TRAK_GET_DEVICE_LIST and TRAK_GET_INFO from its node records the
// way the driver does; any other command gets the handler installed for it,
// or -ENOSYS. Codes that are not commands get -ENOTTY. It remembers every
// request, and a copy of the record of every command as it arrived.
class FakeDriver {
  public:
    // Returns the driver's result: >= 0, or -errno.
    using Handler = std::function<int(void* record)>;

    void add_node(const trak_info_args& record);
    // The record of a node that was added; handlers change it as the
    // driver's commands change the node.
    trak_info_args& node(std::int32_t minor) { return nodes_.at(minor); }
    void remove_node(std::int32_t minor) { nodes_.erase(minor); }
    void on(trak::Command command, Handler handler);

    // A channel to this driver; the driver must outlive it.
    std::unique_ptr<trak::IoctlChannel> channel();

    const std::vector<unsigned long>& requests() const { return requests_; }
    // The record of the last request, as it was passed in.
    const std::vector<std::uint8_t>& last_record() const { return last_record_; }
    // The record of the last request of `command`, as it was passed in.
    const std::vector<std::uint8_t>& record_of(trak::Command command) const {
        return records_.at(command);
    }

    int handle(unsigned long request, void* record);

  private:
    int device_list(trak_device_list_args& record) const;
    int info(trak_info_args& record) const;

    std::map<std::int32_t, trak_info_args> nodes_;
    std::map<trak::Command, Handler> handlers_;
    std::vector<unsigned long> requests_;
    std::vector<std::uint8_t> last_record_;
    std::map<trak::Command, std::vector<std::uint8_t>> records_;
};

// Fills a record's string field with `value` and NULs.
template <std::size_t N>
// NOLINTNEXTLINE(*-avoid-c-arrays): the records' string fields are C arrays.
void set_string(char (&field)[N], std::string_view value) {
    std::memset(field, 0, N);
    std::memcpy(field, value.data(), value.size());
}

// GET_INFO records of a typical filter node and snap node.
trak_info_args filter_record(std::int32_t minor);
trak_info_args snap_record(std::int32_t minor);

}  // namespace trak_test
