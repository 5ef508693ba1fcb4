/* adaptor-mlx: what every source file of the module includes.
 *
 * Each subject has its own header; this one only gathers them:
 *   adaptor-log.h     the filtered kernel log and its levels
 *   bookkeeping.h     g_stat, the ring of last VAPI errors, the translation and accounting tables,
 *                     the failure-accounting helpers
 *   opened-hcas.h     the adaptor lock ox_mlx_sl and the list of opened HCAs
 *   module-params.h   module identity, parameters and switches
 * Helpers that only some entry points need (translation of records, look-ups by VAPI handle,
 * gather addresses) have their own headers and are included where used.
 *
 * Compiles as C and as C++. */
#ifndef ADAPTOR_TAVOR_H
#define ADAPTOR_TAVOR_H

#include "adaptor-log.h"
#include "bookkeeping.h"
#include "opened-hcas.h"
#include "module-params.h"

#endif
