// SPDX-License-Identifier: GPL-2.0
/*
 * trak_test.ko: in-kernel unit tests of what no ioctl shows, the locks'
 * recursion, owner checks and wake-ups across tasks, the registry's choice
 * of minors, the request tracker's overlaps and the COW queue's order.  Loading the module runs every test; the load fails
 * when any test fails.
 */
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/sched/task.h>

#include "core/log.h"
#include "core/params.h"
#include "trak_test.h"

/* The parameters the code under test reads. */
int trak_debug = 1;
int trak_max_blk_minor = 255;

bool trak_test_check(bool ok, const char *what, const char *func, int line)
{
	if (!ok)
		pr_err("trak_test: %s:%d: expected %s\n", func, line, what);
	return ok;
}

static int trak_test_task_fn(void *data)
{
	struct trak_test_task *t = data;

	t->op(t->lock);
	complete(&t->done);
	return 0;
}

int trak_test_task_start(struct trak_test_task *t, void (*op)(void *lock),
			 void *lock)
{
	init_completion(&t->done);
	t->op = op;
	t->lock = lock;
	t->task = kthread_run(trak_test_task_fn, t, "trak_test");
	if (IS_ERR(t->task))
		return PTR_ERR(t->task);
	/* Keeps the task_struct for trak_test_task_stop() after it exits. */
	get_task_struct(t->task);
	return 0;
}

bool trak_test_task_blocked(struct trak_test_task *t)
{
	return !wait_for_completion_timeout(&t->done,
			msecs_to_jiffies(TRAK_TEST_BLOCKED_MS));
}

bool trak_test_task_finished(struct trak_test_task *t)
{
	return wait_for_completion_timeout(&t->done,
			msecs_to_jiffies(TRAK_TEST_WAKE_MS));
}

void trak_test_task_stop(struct trak_test_task *t)
{
	kthread_stop(t->task);
	put_task_struct(t->task);
}

static void trak_test_run(const struct trak_test_case *tests, int *passed,
			  int *failed)
{
	for (; tests->name; tests++) {
		if (tests->run()) {
			pr_err("trak_test: %s: FAILED\n", tests->name);
			(*failed)++;
		} else {
			pr_info("trak_test: %s: ok\n", tests->name);
			(*passed)++;
		}
	}
}

static int __init trak_test_init(void)
{
	int passed = 0, failed = 0;

	trak_test_run(trak_oxmutex_tests, &passed, &failed);
	trak_test_run(trak_oxrwlock_tests, &passed, &failed);
	trak_test_run(trak_registry_tests, &passed, &failed);
	trak_test_run(trak_aio_tests, &passed, &failed);
	trak_test_run(trak_cowqueue_tests, &passed, &failed);
	pr_info("trak_test: %d passed, %d failed\n", passed, failed);
	trak_debug_destroy();
	return failed ? -EINVAL : 0;
}

static void __exit trak_test_exit(void)
{
}

module_init(trak_test_init);
module_exit(trak_test_exit);

MODULE_DESCRIPTION("In-kernel unit tests of the trak driver core");
MODULE_AUTHOR("The trak developers");
MODULE_LICENSE("GPL");
