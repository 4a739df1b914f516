#include "node_lists.h"

namespace trakctl {

std::vector<std::int32_t> add_node_list(Report& report, trak::Control& control,
                                        trak::DevType type) {
    const bool filter = type == trak::DevType::Filter;
    std::vector<std::int32_t> minors = control.device_list(type);
    report.push_back(Field{.key = filter ? "filter" : "snap",
                           .label = filter ? "filter nodes" : "snap nodes",
                           .value = minors});
    return minors;
}

}  // namespace trakctl
