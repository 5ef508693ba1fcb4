/* The HCA's generic pair: its protection domain and the one physical region that covers all of
 * memory, both made by HCA open. Upper layers use them without registering memory of their own.
 * These calls trust that the HCA's open completed: the generic element exists. */
#include "adaptor-tavor.h"
#include "gather-address.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_get_gen_pd_h(ox_opened_hca_t *opened_hca_p, ox_pd_h_t *find_pd_h_p) {
    AD_TAVOR_DEBUG("opened_hca_p: %p", (void *)opened_hca_p);
    AD_TAVOR_DEBUG("look for hca_h: %d", (int)opened_hca_p->hca_h);
    *find_pd_h_p = opened_hca_p->generic_pd_h;
    AD_TAVOR_DEBUG("find generic pd_h: %d", (int)*find_pd_h_p);
    return ox_return_ok;
}

/* The one region covers every address: `addr` and `length` are not looked at. */
ox_return_t oxi_mlx_get_gen_mr_attrib(ox_opened_hca_t *opened_hca_p, void * /*addr*/,
                                      unsigned long /*length*/, ox_mem_reg_h_t *mr_h, ox_l_key_t *l_key,
                                      ox_r_key_t *r_key) {
    ox_gen_mr_element_t *gen = ox_mlx_first_gen_mr(opened_hca_p);

    *mr_h = gen->mr_h;
    *l_key = gen->l_key;
    *r_key = gen->r_key;
    AD_TAVOR_DEBUG("One MR - find mr_h: %d, addr: %p, size: %d, l_key: %d, r_key: %d", (int)gen->mr_h,
                   gen->start_mr, (int)gen->length, (int)gen->l_key, (int)gen->r_key);
    return ox_return_ok;
}

/* A directly mapped kernel address, as a peer addresses it through the generic registration. */
ox_return_t oxi_mlx_va2advertise_addr(ox_opened_hca_t *opened_hca_p, unsigned long v_addr,
                                      unsigned long *adv_addr) {
    *adv_addr = (unsigned long)ox_mlx_gather_address(opened_hca_p, v_addr);
    AD_TAVOR_DEBUG("One Physical MR - IN: %llx, OUT: %llx", (unsigned long long)v_addr,
                   (unsigned long long)*adv_addr);
    return ox_return_ok;
}
