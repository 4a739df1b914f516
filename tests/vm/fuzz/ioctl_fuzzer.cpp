#include "fuzz/ioctl_fuzzer.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <utility>

#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

// Every command of the control device.
constexpr std::array kCommands = {
    TRAK_ADD_FILTER_NODE, TRAK_ADD_SNAP_NODE,   TRAK_DEL_NODE,          TRAK_START_NODE,
    TRAK_STOP_NODE,       TRAK_GET_DEVICE_LIST, TRAK_GET_INFO,          TRAK_LOAD_BMP,
    TRAK_SAVE_BMP,        TRAK_CLR_BMP,         TRAK_SET_BMP,           TRAK_MERGE_BMP,
    TRAK_GET_BMP,         TRAK_GET_AND_CLR_BMP, TRAK_GET_DATABLOCK_BMP, TRAK_TEST_DATABLOCK,
    TRAK_RESUME_SNAP,
};

// Records are at most this long; codes with larger sizes still get a
// buffer this long (the rest faults).
constexpr std::size_t kRecordPage = std::size_t{64} * 1024;
constexpr std::size_t kDataBytes = std::size_t{1024} * 1024;
constexpr std::uint64_t kKernelAddress = 0xffff888000000000ULL;

template <typename Record>
Record* As(std::uint8_t* record, std::size_t size) {
    return size >= sizeof(Record) ? reinterpret_cast<Record*>(record) : nullptr;
}

}  // namespace

IoctlFuzzer::IoctlFuzzer(std::uint64_t seed, const ControlDevice& control, FuzzPaths paths)
    : random_(seed),
      control_(control),
      paths_(std::move(paths)),
      record_page_(kRecordPage),
      data_(kDataBytes) {}

bool IoctlFuzzer::Chance(unsigned percent) { return random_() % 100 < percent; }

template <typename T>
const T& IoctlFuzzer::PickFrom(const std::vector<T>& items) {
    return items[random_() % items.size()];
}

unsigned long IoctlFuzzer::PickCode() {
    const unsigned long known = kCommands[random_() % kCommands.size()];
    const unsigned roll = random_() % 100;
    if (roll < 70) {
        return known;
    }
    if (roll < 80) {  // a known command with a record of the wrong size
        const unsigned size = _IOC_SIZE(known);
        const std::array<unsigned, 5> sizes = {0, 1, size - 1, size + 1,
                                               static_cast<unsigned>(random_() % _IOC_SIZEMASK)};
        return _IOC(_IOC_DIR(known), _IOC_TYPE(known), _IOC_NR(known), sizes[random_() % 5]);
    }
    if (roll < 88) {  // a known command in the wrong direction
        return _IOC(random_() % 4, _IOC_TYPE(known), _IOC_NR(known), _IOC_SIZE(known));
    }
    if (roll < 95) {  // a number the driver does not know
        return _IOC(random_() % 4, TRAK_IOCTL_TYPE, random_() % 256, random_() % (kRecordPage / 8));
    }
    return static_cast<unsigned int>(random_());
}

std::int32_t IoctlFuzzer::PickMinor() {
    const unsigned roll = random_() % 100;
    if (roll < 50) {
        return static_cast<std::int32_t>(random_() % 2);
    }
    if (roll < 70) {
        return static_cast<std::int32_t>(2 + random_() % 3);
    }
    if (roll < 85) {
        const std::array<std::int32_t, 4> edges = {255, 256, -1, -2};
        return edges[random_() % edges.size()];
    }
    if (roll < 92) {
        return Chance(50) ? INT32_MAX : INT32_MIN;
    }
    return static_cast<std::int32_t>(random_());
}

std::uint32_t IoctlFuzzer::PickKind() {
    if (Chance(90)) {
        return Chance(50) ? TRAK_BMP_INCR : TRAK_BMP_DIFF;
    }
    return static_cast<std::uint32_t>(random_());
}

std::int32_t IoctlFuzzer::PickSize() {
    const unsigned roll = random_() % 100;
    if (roll < 25) {
        return static_cast<std::int32_t>(random_() % 65);
    }
    if (roll < 50) {
        return static_cast<std::int32_t>(512 + random_() % 8192);
    }
    if (roll < 70) {
        return 1 << (random_() % 21);
    }
    if (roll < 80) {
        return -static_cast<std::int32_t>(random_() % 4097) - 1;
    }
    if (roll < 90) {
        return Chance(50) ? INT32_MAX : 1 << 30;
    }
    return static_cast<std::int32_t>(random_());
}

std::uint64_t IoctlFuzzer::PickUserAddress() {
    const unsigned roll = random_() % 100;
    if (roll < 75) {
        return reinterpret_cast<std::uintptr_t>(data_.Tail(data_.size()));
    }
    if (roll < 85) {  // a little before the guard page
        return reinterpret_cast<std::uintptr_t>(data_.Tail(random_() % 8192));
    }
    const std::array<std::uint64_t, 4> bad = {0, data_.Guard(), kKernelAddress, random_()};
    return bad[random_() % bad.size()];
}

std::uint32_t IoctlFuzzer::PickExtentSize() {
    const std::array<std::uint32_t, 9> sizes = {4096, 65536, 8192, 512, 0, 3, 1 << 20, 1U << 31, 0};
    const std::uint32_t size = sizes[random_() % sizes.size()];
    return size != 0 || Chance(50) ? size : static_cast<std::uint32_t>(random_());
}

void IoctlFuzzer::FillText(char* field, std::size_t capacity) {
    static constexpr std::string_view kChars = "abcdefXYZ0123-_{}/. ";
    const std::size_t length = Chance(80) ? random_() % capacity : capacity;
    for (std::size_t i = 0; i < length; ++i) {
        field[i] = kChars[random_() % kChars.size()];
    }
    if (length < capacity) {
        field[length] = '\0';
    }
}

void IoctlFuzzer::FillPath(char* field, std::size_t capacity) {
    const unsigned roll = random_() % 100;
    std::string path;
    if (roll < 30) {
        path = PickFrom(paths_.devices);
    } else if (roll < 55) {
        path = PickFrom(paths_.directories);
    } else if (roll < 80) {
        path = PickFrom(paths_.odd);
    } else if (roll < 85) {
        path.clear();
    } else if (roll < 92) {  // no terminating NUL in the whole field
        std::memset(field, 'a', capacity);
        field[0] = '/';
        return;
    } else {  // as long as the field allows, and still NUL-terminated
        path = "/tmp/" + std::string(capacity - 6, 'p');
    }
    const std::size_t n = std::min(path.size(), capacity - 1);
    std::memcpy(field, path.data(), n);
    field[n] = '\0';
}

void IoctlFuzzer::FillRecord(unsigned long code, std::uint8_t* record, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        record[i] = static_cast<std::uint8_t>(random_());
    }
    if (_IOC_TYPE(code) != TRAK_IOCTL_TYPE || Chance(5)) {
        return;
    }
    switch (_IOC_NR(code)) {
        case _IOC_NR(TRAK_ADD_FILTER_NODE):
            if (auto* r = As<trak_add_filter_args>(record, size)) {
                FillPath(r->hdd_name, sizeof(r->hdd_name));
                r->minor = PickMinor();
                r->extent_size = PickExtentSize();
                FillPath(r->bmp_dir, sizeof(r->bmp_dir));
                r->uuid[0] = '\0';
                r->name[0] = '\0';
                if (Chance(20)) {
                    FillText(r->uuid, sizeof(r->uuid));
                }
                if (Chance(20)) {
                    FillText(r->name, sizeof(r->name));
                }
            }
            break;
        case _IOC_NR(TRAK_ADD_SNAP_NODE):
            if (auto* r = As<trak_add_snap_args>(record, size)) {
                r->filter_minor = static_cast<std::uint32_t>(PickMinor());
                r->snap_minor = PickMinor();
                r->chunk_size = PickExtentSize();
                FillPath(r->cow_bmp_fname, sizeof(r->cow_bmp_fname));
                FillPath(r->cow_data_fname, sizeof(r->cow_data_fname));
                FillText(r->uuid, sizeof(r->uuid));
                FillText(r->name, sizeof(r->name));
            }
            break;
        case _IOC_NR(TRAK_DEL_NODE):
        case _IOC_NR(TRAK_START_NODE):
        case _IOC_NR(TRAK_STOP_NODE):
        case _IOC_NR(TRAK_GET_INFO):
            if (auto* r = As<trak_minor_args>(record, size)) {
                r->minor = PickMinor();
            }
            break;
        case _IOC_NR(TRAK_GET_DEVICE_LIST):
            if (auto* r = As<trak_device_list_args>(record, size)) {
                r->dev_type = Chance(80) ? TRAK_DEV_FILTER + random_() % 2 : random_();
            }
            break;
        case _IOC_NR(TRAK_LOAD_BMP):
        case _IOC_NR(TRAK_SAVE_BMP):
        case _IOC_NR(TRAK_CLR_BMP):
            if (auto* r = As<trak_bmp_args>(record, size)) {
                r->minor = static_cast<std::uint32_t>(PickMinor());
                r->kind = PickKind();
            }
            break;
        case _IOC_NR(TRAK_SET_BMP):
        case _IOC_NR(TRAK_MERGE_BMP):
        case _IOC_NR(TRAK_GET_BMP):
        case _IOC_NR(TRAK_GET_AND_CLR_BMP):
            if (auto* r = As<trak_bmp_data_args>(record, size)) {
                r->minor = static_cast<std::uint32_t>(PickMinor());
                r->kind = PickKind();
                r->size = PickSize();
                r->data = PickUserAddress();
            }
            break;
        case _IOC_NR(TRAK_GET_DATABLOCK_BMP):
            if (auto* r = As<trak_datablock_bmp_args>(record, size)) {
                r->minor = static_cast<std::uint32_t>(PickMinor());
                r->extent_size = PickExtentSize();
                r->bmp_size = PickSize();
                r->bmp_data = PickUserAddress();
            }
            break;
        case _IOC_NR(TRAK_TEST_DATABLOCK):
            if (auto* r = As<trak_test_datablock_args>(record, size)) {
                FillPath(r->hdd_name, sizeof(r->hdd_name));
            }
            break;
        default:
            break;
    }
}

void IoctlFuzzer::Step() {
    const unsigned long code = PickCode();
    const std::size_t size = std::min<std::size_t>(_IOC_SIZE(code), record_page_.size());
    std::uintptr_t address = 0;
    const unsigned roll = random_() % 100;
    if (roll < 88) {
        std::uint8_t* record = record_page_.Tail(size);
        FillRecord(code, record, size);
        address = reinterpret_cast<std::uintptr_t>(record);
    } else if (roll < 94 && size > 0) {  // a record cut short by the guard page
        const std::size_t kept = random_() % size;
        std::uint8_t* record = record_page_.Tail(kept);
        address = reinterpret_cast<std::uintptr_t>(record);
    } else {
        const std::array<std::uintptr_t, 3> bad = {0, record_page_.Guard(), kKernelAddress};
        address = bad[random_() % bad.size()];
    }
    const int result = control_.IoctlAt(code, address);
    ++outcomes_[result > 0 && result < 4096 ? result : 0];
}

}  // namespace trak::vmtest
