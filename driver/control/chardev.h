/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CONTROL_CHARDEV_H
#define TRAK_CONTROL_CHARDEV_H

/* The control device node users open: /dev/trakctl. */
#define TRAK_CTL_NODE_NAME	"trakctl"

int trak_char_init(void);
int trak_char_destroy(void);

#endif
