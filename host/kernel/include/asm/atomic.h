/* atomic_t with the kernel's operations (sequentially consistent host atomics). */
#ifndef _ASM_ATOMIC_H
#define _ASM_ATOMIC_H

typedef struct {
    volatile int counter;
} atomic_t;

#define ATOMIC_INIT(i) {(i)}

#define atomic_read(v) (__atomic_load_n(&(v)->counter, __ATOMIC_SEQ_CST))
#define atomic_set(v, i) (__atomic_store_n(&(v)->counter, (i), __ATOMIC_SEQ_CST))

static inline void atomic_add(int i, atomic_t *v) { __atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST); }
static inline void atomic_sub(int i, atomic_t *v) { __atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST); }
static inline void atomic_inc(atomic_t *v) { atomic_add(1, v); }
static inline void atomic_dec(atomic_t *v) { atomic_sub(1, v); }
static inline int atomic_add_return(int i, atomic_t *v) {
    return __atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline int atomic_sub_return(int i, atomic_t *v) {
    return __atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}
static inline int atomic_inc_return(atomic_t *v) { return atomic_add_return(1, v); }
static inline int atomic_dec_return(atomic_t *v) { return atomic_sub_return(1, v); }
static inline int atomic_sub_and_test(int i, atomic_t *v) { return atomic_sub_return(i, v) == 0; }
static inline int atomic_dec_and_test(atomic_t *v) { return atomic_sub_return(1, v) == 0; }
static inline int atomic_inc_and_test(atomic_t *v) { return atomic_add_return(1, v) == 0; }
static inline int atomic_add_negative(int i, atomic_t *v) { return atomic_add_return(i, v) < 0; }

#endif
