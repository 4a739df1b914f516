/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_FSMAP_DATABLOCK_COMMANDS_H
#define TRAK_FSMAP_DATABLOCK_COMMANDS_H

#include "trak_ioctl.h"

int trak_ioctl_test_datablock(struct trak_test_datablock_args *rec);

#endif
