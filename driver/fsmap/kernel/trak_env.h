/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Kernel environment of the data-block map code.  The sources under fsmap/
 * are shared with the host unit tests, which supply their own trak_env.h;
 * this one maps every name they use onto the kernel and the driver.
 */
#ifndef TRAK_FSMAP_KERNEL_ENV_H
#define TRAK_FSMAP_KERNEL_ENV_H

#include <linux/bitmap.h>
#include <linux/blkdev.h>
#include <linux/crc16.h>
#include <linux/crc32c.h>
#include <linux/fcntl.h>
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/log2.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/types.h>
#include <linux/vmalloc.h>
#include <asm/unaligned.h>

#include "core/log.h"
#include "util/bread.h"
#include "util/file.h"

#endif
