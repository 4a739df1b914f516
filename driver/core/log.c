// SPDX-License-Identifier: GPL-2.0
/*
 * The driver's diagnostic log.  Every message is formatted into one shared
 * buffer and handed to printk, tagged with the calling pid, or " int" when
 * it comes from interrupt context.
 */
#include <linux/kernel.h>
#include <linux/printk.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "log.h"
#include "params.h"

#define TRAK_LOG_BUFFER_SIZE	2048

static char *trak_debug_buffer;
static int trak_debug_buffer_size;

/*
 * Serialises formatting into the shared buffer, so that messages from
 * several CPUs or from an interrupt never overwrite each other's text.
 */
static DEFINE_SPINLOCK(trak_debug_buffer_lock);

static int trak_debug_alloc(gfp_t gfp)
{
	char *buffer;
	unsigned long flags;

	if (READ_ONCE(trak_debug_buffer))
		return 0;

	buffer = kmalloc(TRAK_LOG_BUFFER_SIZE, gfp);
	if (!buffer)
		return -ENOMEM;

	spin_lock_irqsave(&trak_debug_buffer_lock, flags);
	if (trak_debug_buffer) {
		spin_unlock_irqrestore(&trak_debug_buffer_lock, flags);
		kfree(buffer);
		return 0;
	}
	trak_debug_buffer = buffer;
	trak_debug_buffer_size = TRAK_LOG_BUFFER_SIZE;
	spin_unlock_irqrestore(&trak_debug_buffer_lock, flags);
	return 0;
}

int trak_debug_init(void)
{
	return trak_debug_alloc(GFP_KERNEL);
}

int trak_debug_destroy(void)
{
	char *buffer;
	unsigned long flags;

	spin_lock_irqsave(&trak_debug_buffer_lock, flags);
	buffer = trak_debug_buffer;
	trak_debug_buffer = NULL;
	trak_debug_buffer_size = 0;
	spin_unlock_irqrestore(&trak_debug_buffer_lock, flags);
	kfree(buffer);
	return 0;
}

static bool trak_log_level_enabled(int level)
{
	if (level < 1 || level > 4)
		return true;
	return READ_ONCE(trak_debug) >= level;
}

int trak_log(int level, const char *fmt, ...)
{
	char tag[16];
	unsigned long flags;
	va_list args;
	size_t len;
	bool newline;

	if (!trak_log_level_enabled(level))
		return 0;

	/*
	 * A message logged before start-up or after shut-down allocates the
	 * buffer again; callers may be in any context, so it must not sleep.
	 */
	trak_debug_alloc(GFP_ATOMIC);

	if (in_interrupt())
		strscpy(tag, " int", sizeof(tag));
	else
		snprintf(tag, sizeof(tag), "%04d", task_pid_nr(current));

	spin_lock_irqsave(&trak_debug_buffer_lock, flags);
	if (!trak_debug_buffer) {
		/* No buffer and no way to allocate one here: drop the message. */
		spin_unlock_irqrestore(&trak_debug_buffer_lock, flags);
		return 0;
	}

	va_start(args, fmt);
	vsnprintf(trak_debug_buffer, trak_debug_buffer_size, fmt, args);
	va_end(args);

	len = strlen(trak_debug_buffer);
	newline = len && trak_debug_buffer[len - 1] == '\n';
	if (level == TRAK_LOG_ERR)
		pr_err("ERROR: %s%s", trak_debug_buffer, newline ? "" : "\n");
	else
		pr_info("%s: %s%s", tag, trak_debug_buffer, newline ? "" : "\n");
	spin_unlock_irqrestore(&trak_debug_buffer_lock, flags);
	return 0;
}
