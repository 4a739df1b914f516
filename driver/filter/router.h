/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_ROUTER_H
#define TRAK_FILTER_ROUTER_H

struct bio;
struct bio_list;
struct trak_blkdev;

void trak_make_request(struct bio *bio);
void trak_filter_release(struct trak_blkdev *dev, struct bio_list *bios);

#endif
