/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TRAK_TEST_H
#define TRAK_TEST_H

#include <linux/completion.h>
#include <linux/printk.h>

/* A unit test: 0 when it passed. */
struct trak_test_case {
	const char *name;
	int (*run)(void);
};

/* Logs a failed check; tests return -EINVAL when it answers false. */
#define TRAK_CHECK(cond)	trak_test_check(cond, #cond, __func__, __LINE__)

bool trak_test_check(bool ok, const char *what, const char *func, int line);

/* How long a task must stay blocked to count as blocked. */
#define TRAK_TEST_BLOCKED_MS	100
/* How long a task may take to get going once it is no longer blocked. */
#define TRAK_TEST_WAKE_MS	5000

/*
 * A second task that runs one operation on a lock and then signals @done;
 * tests use it to see whether the operation blocks.
 */
struct trak_test_task {
	struct task_struct *task;
	struct completion done;
	void (*op)(void *lock);
	void *lock;
};

int trak_test_task_start(struct trak_test_task *t, void (*op)(void *lock),
			 void *lock);
bool trak_test_task_blocked(struct trak_test_task *t);
bool trak_test_task_finished(struct trak_test_task *t);
void trak_test_task_stop(struct trak_test_task *t);

extern const struct trak_test_case trak_oxmutex_tests[];
extern const struct trak_test_case trak_oxrwlock_tests[];
extern const struct trak_test_case trak_registry_tests[];
extern const struct trak_test_case trak_aio_tests[];
extern const struct trak_test_case trak_cowqueue_tests[];

#endif
