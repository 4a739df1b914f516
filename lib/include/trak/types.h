// The values that the control-device commands take and return.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace trak {

enum class DevType : std::uint32_t { Filter = 1, Snap = 2 };

// Kind codes of the two change bitmaps of a filter node.
enum class BitmapKind : std::uint32_t { Differential = 0, Incremental = 1 };

// A filter node to layer over a partition (TRAK_ADD_FILTER_NODE).
struct FilterSpec {
    std::string hdd_name{};       // device file of the partition
    std::int32_t minor = -1;      // wanted minor; negative: any
    std::uint32_t extent_size{};  // tracking granule in bytes
    std::string bmp_dir{};        // directory of the bitmap files
    std::string uuid{};           // empty: the driver generates one
    std::string name{};           // empty: "trak<minor>"
};

// A node as the driver registered it.
struct NodeId {
    std::int32_t minor{};
    std::string uuid{};
    std::string name{};
};

// A snap node to attach to a filter node (TRAK_ADD_SNAP_NODE).
struct SnapSpec {
    std::int32_t filter_minor{};
    std::int32_t snap_minor = -1;  // wanted minor; negative: any
    std::uint32_t chunk_size{};    // COW granule in bytes
    std::string cow_bmp_fname{};
    std::string cow_data_fname{};
    std::string uuid{};  // empty: the driver generates one
    std::string name{};  // empty: "trak<minor>"
};

// The snap node that TRAK_ADD_SNAP_NODE made; the driver may have raised
// the chunk size for a large partition.
struct SnapNode {
    NodeId id{};
    std::uint32_t chunk_size{};
};

// The state a snap node is brought back into service with (TRAK_RESUME_SNAP).
struct SnapState {
    std::int32_t snap_minor{};
    bool snap_valid{};
    bool stop_pending{};
    bool del_pending{};
};

// The part of TRAK_GET_INFO that describes a filter node.
struct FilterInfo {
    std::string hdd_name{};
    std::uint32_t extent_size{};
    std::uint32_t extent_cnt{};
    std::vector<std::int32_t> snap_minors{};  // oldest snap first
    std::uint32_t incr_bmp_size{};
    std::uint32_t diff_bmp_size{};
    std::string incr_bmp_fname{};
    std::string diff_bmp_fname{};
    bool incr_bmp_clear{};
    bool diff_bmp_clear{};
    bool incr_bmp_full{};
    bool diff_bmp_full{};
};

// The part of TRAK_GET_INFO that describes a snap node.
struct SnapInfo {
    bool snap_valid{};
    bool stop_pending{};
    bool del_pending{};
    std::uint32_t chunk_size{};
    std::uint32_t cow_chunks{};
    std::uint32_t cow_bmp_size{};
    std::uint64_t cow_data_size{};
    std::string cow_bmp_fname{};
    std::string cow_data_fname{};
};

// One node's state (TRAK_GET_INFO). Exactly one of `filter` and `snap` is
// set for the two known node types.
struct Info {
    std::int32_t minor{};
    DevType dev_type{};
    std::uint64_t dev_size{};  // bytes; a snap reports its filter's
    bool started{};
    std::int32_t use_cnt{};
    std::string uuid{};
    std::string name{};
    std::optional<FilterInfo> filter{};
    std::optional<SnapInfo> snap{};
};

}  // namespace trak
