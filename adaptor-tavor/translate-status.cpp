/* The status translation table as a diagnostic would read it. */
#include "adaptor-tavor.h"
#include "translate.h"

ox_return_t ox_mlx_status_to_ox(VAPI_ret_t stat) {
    /* Widened before negating, so that the most negative status cannot overflow. */
    long long magnitude = stat < 0 ? -(long long)stat : (long long)stat;

    if (magnitude >= MLX_STATUS_TRANSLATION_NUM) return ox_return_err;
    return g_status_mlx_to_ox_translation[magnitude];
}
