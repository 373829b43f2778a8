/*
 * The agent context: the one record `da` that every module reads, and the process-wide variables that go with
 * it. One thread owns all of it; signal handlers touch it only where the loop waits (agent/signal-mask.h).
 */
#pragma once

#include <cstdint>

#define DA_VERSION "2.78"

/* Capacities of the texts in the record, terminating NUL included. */
enum {
    ORV_URL_SIZE = 257,
    DEVICE_ID_SIZE = 131,
    HW_EXPIRY_DATE_SIZE = 128,
};

/* Connection states, kept in da.state. */
enum {
    DA_STATE_IDLE = 0,         /* waiting for the discovery delay */
    DA_STATE_DISCOVERY = 1,    /* finding the controller's URL and resolving it */
    DA_STATE_CONNECTING = 2,   /* websocket connect in progress */
    DA_STATE_CONNECTED = 3,    /* websocket established, registration runs here */
    DA_STATE_DISCONNECTED = 4, /* clean-up, then straight to idle */
};

/* Ways of finding the controller, kept in da.discovery_method. */
enum {
    DISCOVER_RESTART = -1, /* forced rediscovery: a fresh cycle that begins with the static URL */
    DISCOVER_STATIC_URL = 0,
    DISCOVER_DHCP_15 = 1,
    DISCOVER_DHCP_43 = 2,
    DISCOVER_FROM_AP = 3,
    DISCOVER_DEFAULT_CLOUD = 4,
};

/* Who the device is. Texts are empty until learned; platform/identity.h fills them. */
struct device_info {
    char product_name[128];     /* marketing name, "Strata SA" */
    char ip_addr[16];           /* dotted IPv4 text, refreshed at each REGISTER */
    char sw_version[128];       /* active software */
    char other_sw_version[128]; /* software of the standby image */
    char hw_version[128];
    char serial_number[256];
    char eth_mac_addr[54]; /* MAC of eth0 as the kernel writes it, 17 characters */
    char parent_mac[18];   /* MAC of the upstream switch port, upper case, learned by LLDP */
    char device_mode[132]; /* never filled on this platform */
    char velmora_id[129];  /* first field of the account token file */
    char velmora_token[129];
    char account_id[258];
    char hw_expiry_date[HW_EXPIRY_DATE_SIZE];
};

/* Zero-filled as a whole by init_device_agent. Flags are 0 or 1. */
struct agent_context {
    /*
     * The candidate URL while a discovery method is tried, the controller's URL after success. The device id
     * stands directly behind it.
     */
    char orv_url[ORV_URL_SIZE];
    char deviceId[DEVICE_ID_SIZE]; /* cookie "deviceId" of the onboarding service */
    int32_t discovery_method;
    int32_t dhcp43_allowed;
    int32_t dhcp15_allowed;  /* while it is 1 the deviceId is left out of the websocket path */
    int32_t connect_count;   /* how often the connected state was reached since start */
    int32_t reconnect_wait;  /* seconds, base of the slow rediscovery delay; the controller's "waitTime" */
    int32_t reconnect_delta; /* seconds, random spread on top of it; the controller's "deltaTime" */
    device_info dev_info;
    int32_t mgmt_flag;  /* the controller manages this device */
    int32_t state;      /* DA_STATE_... */
    int32_t registered; /* the controller accepted REGISTER */
    int32_t debug_level;
    int32_t auto_reboot;   /* reboot by ourselves after a software upgrade */
    int32_t register_sent; /* a REGISTER is outstanding */
};

extern agent_context da;

/*
 * Bumped by every state entry. Whoever waits inside a state (the discovery pass) and comes back to another
 * number has been overtaken by a signal's state change: it stops, changes nothing and enters no state.
 */
extern uint32_t state_generation;

extern int32_t gPid;             /* process id, set at start */
extern int32_t idle_timeout;     /* seconds before the next discovery pass, at least 1 */
extern int32_t aggressive_mode;  /* 1 for the first 900 s: rediscover quickly */
extern int32_t retry_time;       /* seconds, the retry delay shown with the connection state */
extern char static_orv_url[256]; /* from -s; wins over the static URL file */
extern int32_t stay_idle;        /* -i: the idle state does nothing at all */
extern int32_t pmac_discovery_complete;
extern int32_t orv_state_action_pending; /* a status that must stay on display is in the status file */

/* The host the onboarding was asked at, shown as "Connected to ...". */
extern char g_orv_router[256];

/*
 * Zeroes the record and sets its defaults and idle_timeout. The other variables keep their values: what -s
 * and -i set came first.
 */
void da_reset(void);
