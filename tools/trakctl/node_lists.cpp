#include "node_lists.h"

namespace trakctl {

void add_node_list(Report& report, trak::Control& control, trak::DevType type) {
    const bool filter = type == trak::DevType::Filter;
    report.push_back(Field{.key = filter ? "filter" : "snap",
                           .label = filter ? "filter nodes" : "snap nodes",
                           .value = control.device_list(type)});
}

}  // namespace trakctl
