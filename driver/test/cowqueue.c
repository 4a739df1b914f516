// SPDX-License-Identifier: GPL-2.0
/* The code under test, built into trak_test.ko from the same source. */
#include "../snap/cowqueue.c"
