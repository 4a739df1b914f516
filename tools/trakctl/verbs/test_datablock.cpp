// trakctl test-datablock: the data-block map's self-test on a partition.
#include "../args.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_test_datablock(const Invocation& invocation) {
    invocation.context.control().test_datablock(absolute_path(invocation.args.front()));
}

}  // namespace

const Verb& test_datablock_verb() {
    static const Verb verb{
        .name = "test-datablock",
        .arguments = "DEVICE",
        .summary = "self-test the data-block map on an unmounted partition",
        .description =
            "Reads the file system on the unmounted partition DEVICE (ext2/ext3,\n"
            "ReiserFS or XFS) with the driver's reader at every chunk size, and checks\n"
            "that the reader and the driver's compressed data-block bitmap agree. The\n"
            "maps it read are left in /tmp/bmp.CHUNK.PORTION on the machine. Prints\n"
            "nothing and exits 0 when every check passed.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = false,
        .options = {},
        .run = run_test_datablock,
    };
    return verb;
}

}  // namespace trakctl
