/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_BLOCK_FILTER_NODE_H
#define TRAK_BLOCK_FILTER_NODE_H

#include "trak_ioctl.h"

int trak_ioctl_add_filter_node(struct trak_add_filter_args *rec);

#endif
