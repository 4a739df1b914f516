// SPDX-License-Identifier: GPL-2.0
/*
 * A module for testing the VM harness: loaded with warn=1 it makes the
 * kernel print a WARNING, which the console scan must report; loaded with
 * warn=0 it only taints the kernel as an out-of-tree module, which the scan
 * must let pass.  Its name starts with "trak", so the harness unloads it.
 */
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/bug.h>

static bool warn;
module_param(warn, bool, 0444);
MODULE_PARM_DESC(warn, "print a kernel WARNING when loaded");

static int __init trak_vmtest_init(void)
{
	WARN(warn, "trak_vmtest: warning on request\n");
	return 0;
}

static void __exit trak_vmtest_exit(void)
{
}

module_init(trak_vmtest_init);
module_exit(trak_vmtest_exit);
MODULE_DESCRIPTION("VM harness self-test module");
MODULE_LICENSE("GPL");
