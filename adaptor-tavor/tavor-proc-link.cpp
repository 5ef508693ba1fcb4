/* The link file: the state of port 1 of the default HCA. */
#define TAVOR_PROC_SOURCE
#include <linux/kernel.h>
#include <linux/string.h>

#include <vapi.h>
#include <evapi.h>

#include "ox-verbs-core.h"
#include "tavor-proc.h"

static const char *port_state_name(int state) {
    switch (state) {
        case 0:
            return "PORT_NOP";
        case 1:
            return "PORT_DOWN";
        case 2:
            return "PORT_INITIALIZE";
        case 3:
            return "PORT_ARMED";
        case 4:
            return "PORT_ACTIVE";
        default:
            return "INVALID_STATE";
    }
}

/* The whole answer is produced on every read; start, offset and length are not looked at. */
int proc_read_link(char *buffer, char **start, off_t offset, int length, int *eof, void *data) {
    const char *name = ox_default_hca_name();
    VAPI_hca_hndl_t hca_h = 0;
    VAPI_hca_port_t port;
    VAPI_ret_t stat;
    bool borrowed = false;
    int len;

    (void)start;
    (void)offset;
    (void)length;
    (void)data;
    /* While the adaptor has the device open, VAPI_open_hca refuses: borrow the handle then. */
    stat = VAPI_open_hca(name, &hca_h);
    if (stat != VAPI_OK) {
        borrowed = true;
        stat = EVAPI_get_hca_hndl(name, &hca_h);
        if (stat != VAPI_OK) {
            len = sprintf(buffer, "VAPI_ERROR_HCA %d\n", stat);
            *eof = 1;
            return len;
        }
    }

    memset(&port, 0, sizeof(port));
    stat = VAPI_query_hca_port_prop(hca_h, 1, &port);
    if (stat != VAPI_OK)
        len = sprintf(buffer, "VAPI_ERROR_QUERY %d\n", stat);
    else
        len = sprintf(buffer, "%s\n", port_state_name((int)port.state));

    if (borrowed)
        EVAPI_release_hca_hndl(hca_h);
    else
        VAPI_close_hca(hca_h);
    *eof = 1;
    return len;
}
