/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_UTIL_STACK_H
#define TRAK_UTIL_STACK_H

#include <linux/types.h>

/*
 * Fills @lower with up to @max devices that @devt is stacked on directly
 * and returns how many; 0 for a device stacked on nothing the block layer
 * shows. Process context: it reads sysfs.
 */
int trak_lower_devices(dev_t devt, dev_t *lower, int max);

#endif
