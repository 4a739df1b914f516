// The data-block map code of driver/fsmap, as C++ tests see it.
#ifndef TRAK_TESTS_HOST_FSMAP_FSMAP_API_H
#define TRAK_TESTS_HOST_FSMAP_FSMAP_API_H

extern "C" {
#include "blkbmp.h"
#include "blkbmp_test.h"
#include "reader.h"
}

#endif
