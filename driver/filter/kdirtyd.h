/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_KDIRTYD_H
#define TRAK_FILTER_KDIRTYD_H

struct trak_blkdev;

int trak_start_kdirtyd(void);
int trak_stop_kdirtyd(void);
int trak_sched_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind);
int trak_kill_dirty_requests(struct trak_blkdev *dev, unsigned int kind);
int trak_yield_to_dirty_requests(struct trak_blkdev *dev, int seconds);

#endif
