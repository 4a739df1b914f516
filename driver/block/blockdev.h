/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_BLOCKDEV_H
#define TRAK_BLOCK_BLOCKDEV_H

int trak_block_init(void);
int trak_block_destroy(void);

#endif
