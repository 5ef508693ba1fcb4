/* Types the adaptor shares between its tracking records and the vendor verbs: the vendor handle a
 * registration is about. */
#ifndef OX_MLX_TAVOR_COMMON_H
#define OX_MLX_TAVOR_COMMON_H

#include <vapi.h>

#include <linux/compiler.h>

__BEGIN_KERNEL_DECLS

/* The vendor's handle of the object an asynchronous event registration names; which member is
 * valid follows from the registration's requested kind. */
union element_h {
    VAPI_hca_hndl_t hca_vend_h;
    VAPI_qp_hndl_t qp_vend_h;
    VAPI_cq_hndl_t cq_vend_h;
    VAPI_eec_hndl_t eec_vend_h;
};
typedef union element_h element_h_t;

__END_KERNEL_DECLS

#endif
