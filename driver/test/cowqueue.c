// SPDX-License-Identifier: GPL-2.0
/* The code under test, built into trak_test.ko from the same source. */
#include "../snap/cowqueue.c"

/* No COW thread runs in this module. */
bool trak_current_is_cowthread(void)
{
	return false;
}
