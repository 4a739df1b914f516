/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CONTROL_PROC_H
#define TRAK_CONTROL_PROC_H

struct trak_blkdev;

int trak_create_proc(void);
void trak_remove_proc(void);
int trak_proc_add_device(struct trak_blkdev *dev);
void trak_proc_del_device(struct trak_blkdev *dev);

#endif
