/* The global list of opened HCAs and the adaptor lock that guards it. */
#include <linux/module.h>
#include <linux/spinlock.h>
#include <linux/list.h>

#include "adaptor-tavor.h"

spinlock_t ox_mlx_sl = SPIN_LOCK_UNLOCKED;
LIST_HEAD(g_opened_mlx_hcas_list);

EXPORT_SYMBOL(g_opened_mlx_hcas_list);
EXPORT_SYMBOL(ox_mlx_sl);
