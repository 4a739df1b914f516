/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CONTROL_IOCTL_H
#define TRAK_CONTROL_IOCTL_H

struct file;

long trak_char_ioctl(struct file *file, unsigned int cmd, unsigned long arg);

#endif
