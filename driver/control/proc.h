/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_CONTROL_PROC_H
#define TRAK_CONTROL_PROC_H

int trak_create_proc(void);
void trak_remove_proc(void);

#endif
