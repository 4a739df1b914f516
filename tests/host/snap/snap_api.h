// The COW store code of driver/snap, as C++ tests see it.
#ifndef TRAK_TESTS_HOST_SNAP_SNAP_API_H
#define TRAK_TESTS_HOST_SNAP_SNAP_API_H

extern "C" {
#include "cow_store.h"
#include "cowbmp.h"
}

#endif
