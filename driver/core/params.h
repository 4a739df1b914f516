/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CORE_PARAMS_H
#define TRAK_CORE_PARAMS_H

/* Module parameters; a major of 0 is replaced by the one the kernel grants. */
extern int trak_chr_major;
extern int trak_blk_major;
extern int trak_max_blk_minor;
extern int trak_debug;

#endif
