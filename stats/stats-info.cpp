#include "stats/stats-info.h"

#include "agent/debug-log.h"

#define MODULE "stats-json-parse.c"

stats_slot g_stats_info[STATS_SLOTS];

static const void *address(const void *pointer) { return pointer; }

void free_stats_request(int32_t t_index)
{
    static const char function[] = "free_stats_request";
    const stats_request *request = g_stats_info[t_index].request.get();
    if (!request)
        return;
    if (request->fld_size > 0)
        LOG(LOG_TRACE, "%s: Free request->fld_array=%p t_index=%d fld_size=%d tbl_size=%d", function,
            address(request->fld_array.get()), t_index, request->fld_size, request->tbl_size);
    for (int32_t i = 0; i < request->tbl_size; i++) {
        const tbl_entry &table = request->tbl_array[i];
        LOG(LOG_TRACE, "%s: Free request->table->fld_array=%p table_name %s tptr=%p fld_size=%d", function,
            address(table.fld_array.get()), table.name, address(&table), table.fld_size);
    }
    if (request->tbl_size > 0)
        LOG(LOG_TRACE, "%s: Free request->tbl_array=%p rptr->tbl_size=%d", function,
            address(request->tbl_array.get()), request->tbl_size);
    LOG(LOG_TRACE, "%s: Free request=%p", function, address(request));
    g_stats_info[t_index].request.reset();
}
