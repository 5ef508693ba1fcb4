/* Basic types shared by the verbs headers and by the InfiniBand definitions they use.
 * Compiles as C (C11) and C++; safe to include after the emulated kernel's linux/types.h. */
#ifndef MTL_TYPES_H
#define MTL_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h> /* u_int8_t .. u_int64_t */

#ifdef __cplusplus
#define MT_EXTERN_C_BEGIN extern "C" {
#define MT_EXTERN_C_END }
#define MT_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define MT_EXTERN_C_BEGIN
#define MT_EXTERN_C_END
#define MT_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

typedef u_int8_t MT_bool; /* one byte, as the adapter's records hold it */
#ifndef FALSE
#define FALSE 0
#endif
#ifndef TRUE
#define TRUE 1
#endif

typedef unsigned long MT_ulong_ptr_t; /* wide enough for a pointer or a 64-bit handle */
typedef u_int64_t MT_virt_addr_t;
typedef u_int64_t MT_phys_addr_t;
typedef u_int64_t MT_size_t;

MT_STATIC_ASSERT(sizeof(MT_bool) == 1, "MT_bool is one byte");
MT_STATIC_ASSERT(sizeof(MT_ulong_ptr_t) == 8, "handles are 64-bit");

/* ---- InfiniBand architecture types ---------------------------------------------------------- */

typedef u_int8_t IB_port_t; /* physical port number, 1-based */
typedef u_int16_t IB_lid_t;
typedef u_int8_t IB_gid_t[16]; /* network byte order: subnet prefix then interface id */
typedef u_int8_t IB_guid_t[8]; /* network byte order */
typedef u_int16_t IB_pkey_t;
typedef u_int32_t IB_qpn_t; /* 24 significant bits */
typedef u_int32_t IB_wqpn_t;
typedef u_int32_t IB_eecn_t;
typedef u_int8_t IB_sl_t;
typedef u_int8_t IB_vl_t;
typedef u_int8_t IB_static_rate_t;
typedef u_int8_t IB_rnr_nak_timer_code_t; /* 0 = 655.36 ms, 1 = 0.01 ms .. 31 = 491.52 ms */
typedef u_int32_t IB_port_cap_mask_t;

typedef enum { MTU256 = 1, MTU512 = 2, MTU1024 = 3, MTU2048 = 4, MTU4096 = 5 } IB_mtu_t;

/* Logical port state, as PortInfo carries it. */
typedef enum {
    PORT_NOP = 0,
    PORT_DOWN = 1,
    PORT_INITIALIZE = 2,
    PORT_ARMED = 3,
    PORT_ACTIVE = 4
} IB_port_state_t;

/* Physical port state (PortInfo.PortPhysicalState). */
typedef enum {
    PORT_PHYS_NOP = 0,
    PORT_PHYS_SLEEP = 1,
    PORT_PHYS_POLLING = 2,
    PORT_PHYS_DISABLED = 3,
    PORT_PHYS_TRAINING = 4,
    PORT_PHYS_LINKUP = 5,
    PORT_PHYS_ERROR_RECOVERY = 6
} IB_port_phys_state_t;

/* Transport service types. */
typedef enum { IB_TS_RC = 0, IB_TS_RD = 1, IB_TS_UC = 2, IB_TS_UD = 3, IB_TS_RAW = 4 } IB_ts_t;

/* PortInfo.CapabilityMask bits. */
#define IB_CAP_MASK_IS_SM (1u << 1)
#define IB_CAP_MASK_IS_NOTICE_SUP (1u << 2)
#define IB_CAP_MASK_IS_TRAP_SUP (1u << 3)
#define IB_CAP_MASK_IS_AUTO_MIGR_SUP (1u << 5)
#define IB_CAP_MASK_IS_SL_MAP_SUP (1u << 6)
#define IB_CAP_MASK_IS_MKEY_NVRAM (1u << 7)
#define IB_CAP_MASK_IS_PKEY_NVRAM (1u << 8)
#define IB_CAP_MASK_IS_LED_INFO_SUP (1u << 9)
#define IB_CAP_MASK_IS_SM_DISABLED (1u << 10)
#define IB_CAP_MASK_IS_SYS_IMAGE_GUID_SUP (1u << 11)
#define IB_CAP_MASK_IS_PKEY_SW_EXT_PORT_TRAP_SUP (1u << 12)
#define IB_CAP_MASK_IS_CONN_MGMT_SUP (1u << 16)
#define IB_CAP_MASK_IS_SNMP_TUNN_SUP (1u << 17)
#define IB_CAP_MASK_IS_REINIT_SUP (1u << 18)
#define IB_CAP_MASK_IS_DEVICE_MGMT_SUP (1u << 19)
#define IB_CAP_MASK_IS_VENDOR_CLS_SUP (1u << 20)
#define IB_CAP_MASK_IS_DR_NOTICE_SUP (1u << 21)
#define IB_CAP_MASK_IS_CAP_MASK_NOTICE_SUP (1u << 22)
#define IB_CAP_MASK_IS_BOOT_MGMT_SUP (1u << 23)
#define IB_CAP_MASK_IS_CLIENT_REREG_SUP (1u << 25)

#endif
