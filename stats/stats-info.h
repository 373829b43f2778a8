/*
 * What the controller wants reported: the slot table and the requests in it. Slot 0 belongs to one-time
 * requests while they are handled, slots 2 to 7 to periodic ones; slot 1 is never filled.
 */
#pragma once

#include <cstdint>
#include <memory>

#include "agent/ev.h"
#include "platform/stats-names.h"

enum {
    STATS_SLOTS = 8,
    ONE_TIME_SLOT = 0,
    FIRST_PERIODIC_SLOT = 2,
};

/* Each array is as long as the size beside it says. */
struct tbl_entry {
    char name[TBL_NAME_SIZE];
    std::unique_ptr<fld_entry[]> fld_array; /* columns */
    int32_t fld_size;
};

struct stats_request {
    std::unique_ptr<fld_entry[]> fld_array;
    int32_t fld_size;
    std::unique_ptr<tbl_entry[]> tbl_array;
    int32_t tbl_size;
};

struct stats_slot {
    int32_t t_index;  /* its own index */
    int32_t interval; /* seconds */
    std::unique_ptr<stats_request> request;
    int32_t active;  /* 1 while a periodic request is in force */
    ev_timer *timer; /* null when not running */
};
extern stats_slot g_stats_info[STATS_SLOTS];

/* Frees the slot's request; harmless when there is none. The slot's other members stay. */
void free_stats_request(int32_t t_index);
