/* Object-database client (MOM) of the platform, as the data-plane modules see it.
 *
 * Records are protobuf-c messages kept in numbered logical databases, keyed by
 * their `index` sub-message (field 5). All callbacks are delivered one at a time
 * on the caller's event loop, never from inside another platform call. */
#ifndef XN_MOM_H
#define XN_MOM_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include <protobuf-c/protobuf-c.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    XN_MOM_ASIC_DB = 0,
    XN_MOM_LOCAL_DB = 3,
    XN_MOM_UDP_DB = 8,
    XN_MOM_TOPO_DB = 14,
};

/* Event commands. */
enum {
    XN_MOM_CMD_SET = 1,   /* record set (whole form) */
    XN_MOM_CMD_DEL = 3,   /* record deleted; the record as it was stored */
    XN_MOM_CMD_HMSET = 4, /* record set field by field; data is an xn_mom_entry_t */
    XN_MOM_CMD_DS = 29,   /* data-sync request; no record */
};

#define XN_MOM_SCAN_OVER 1
#define XN_MOM_RECONN_RESUME 2

/* Entry form of a field-by-field record (command 4). */
typedef struct xn_mom_entry {
    ProtobufCMessage *msg;
    int32_t status;
} xn_mom_entry_t;

/* A database event, second argument of every subscription and scan callback. */
typedef struct xn_mom_msg {
    int32_t cmd;
    uint32_t scan_over;
    uint32_t err;
    void *data; /* ProtobufCMessage * for commands 1 and 3, xn_mom_entry_t * for 4 */
} xn_mom_msg_t;

typedef int (*xn_mom_event_cb_t)(void *client, xn_mom_msg_t *msg);
typedef int (*xn_mom_conn_cb_t)(void *client);
typedef int (*xn_mom_disconn_cb_t)(void);
typedef int (*xn_mom_reconn_cb_t)(void *client, int db, int type);

/* Sessions. Results: 0 success, non-zero failure. */
int xn_mom_client_connect_sync(void *client, int db);
int xn_mom_client_connect(void *client, int db, xn_mom_conn_cb_t cb);
int xn_mom_client_set_disconnect_cb(void *client, int db, xn_mom_disconn_cb_t cb);
int xn_mom_client_set_reconnect_cb(void *client, int db, xn_mom_reconn_cb_t cb);

/* A template whose index is present and all zero (or a type without index)
 * stands for every record of its type. */
int xn_mom_subscribe(void *client, int db, const ProtobufCMessage *tmpl, int flags,
                     xn_mom_event_cb_t cb, void *user);
int xn_mom_scan(void *client, int db, const ProtobufCMessage *tmpl, int flags, xn_mom_event_cb_t cb,
                void *user);

int xn_mom_set(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout);
int xn_mom_hmset(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout);
int xn_mom_del(void *client, int db, const ProtobufCMessage *msg, int flags, int timeout);
/* 0 when a record with the message's key exists. */
int xn_mom_exists_sync(void *client, int db, const ProtobufCMessage *msg);

/* Data-sync bracket on one record type. */
int xn_mom_dsbegin_sync(void *client, int db, const ProtobufCMessage *tmpl, int flags, int expire,
                        int timeout);
int xn_mom_dsend(void *client, int db, const ProtobufCMessage *tmpl, int flags, int a, int b);

/* Data-sync agent. The owner fills `client` right after creating it. */
typedef struct xn_mom_ab {
    void *client;
} xn_mom_ab_t;

typedef struct xn_mom_ds_reg {
    const ProtobufCMessage *tmpl;
    uint32_t mode;
    uintptr_t flags;
    uintptr_t rsv1;
    uintptr_t rsv2;
    const char *owner;
} xn_mom_ds_reg_t;

enum { XN_MOM_KEY_SET = 0, XN_MOM_KEY_DEL = 1 };

/* The record is the third argument. */
typedef int (*xn_mom_key_event_cb_t)(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg,
                                     const ProtobufCMessage *record, void *user);

xn_mom_ab_t *xn_mom_ab_init(int flags, const char *owner, const uint32_t *opts);
/* Returns the data-sync id (1 or more) or a value below 1 on failure. */
int xn_mom_reg_ds(xn_mom_ab_t *agent, xn_mom_ds_reg_t *regs, int cnt, int a, int b);
int xn_mom_reg_key_event(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg, int event,
                         xn_mom_key_event_cb_t cb, void *user);

/* Per-thread globals of the client; the second field is the thread's event loop. */
typedef struct xn_mom_thread_global {
    void *client;
    void *event_loop;
} xn_mom_thread_global_t;

xn_mom_thread_global_t *xn_mom_get_thread_local_global(void);

/* One-shot timers on an event loop. */
typedef int (*xn_thread_func_t)(void *thread);
void *xn_thread_add_timer_timeval(void *event_loop, xn_thread_func_t func, void *arg,
                                  struct timeval delay);
void xn_thread_cancel(void *thread);

#ifdef __cplusplus
}
#endif

#endif
