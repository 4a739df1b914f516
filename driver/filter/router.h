/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FILTER_ROUTER_H
#define TRAK_FILTER_ROUTER_H

struct bio;

void trak_make_request(struct bio *bio);

#endif
