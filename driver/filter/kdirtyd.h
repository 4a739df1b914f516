/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_KDIRTYD_H
#define TRAK_FILTER_KDIRTYD_H

#include <linux/types.h>

struct trak_blkdev;
struct trak_dirty_req;

int trak_start_kdirtyd(void);
int trak_stop_kdirtyd(void);
bool trak_in_kdirtyd(void);
void trak_dirty_req_init(struct trak_dirty_req *req, struct trak_blkdev *dev,
			 unsigned int kind);
int trak_sched_write_dirty_flag(struct trak_blkdev *dev, unsigned int kind,
				bool shorten);
void trak_make_bmp_file_dirty(struct trak_blkdev *dev, unsigned int kind);
int trak_yield_to_dirty_requests(struct trak_blkdev *dev, int seconds);

#endif
