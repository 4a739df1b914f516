/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CORE_LOG_H
#define TRAK_CORE_LOG_H

#include <linux/compiler.h>

/*
 * Log levels: TRAK_LOG_ERR is always printed, as "ERROR: ..."; levels 1
 * (progress) to 4 (every block request) are printed when trak_debug is at
 * least the level; any other level is printed unconditionally.
 */
#define TRAK_LOG_ERR	255

int trak_debug_init(void);
int trak_debug_destroy(void);
__printf(2, 3) int trak_log(int level, const char *fmt, ...);

#endif
