#include "stats/stats-json-parse.h"

#include <new>

#include "agent/debug-log.h"
#include "agent/text.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "stats/stats-daemon.h"
#include "stats/stats-info.h"
#include "stats/stats-report.h"
#include "stats/stats-timers.h"

#define MODULE "stats-json-parse.c"

enum { UNREADABLE = -1 }; /* answered as a bad request */

#define FAIL(status, ...) (set_error_text(error_text, __VA_ARGS__), (status))

/* An array of `size` zeroed elements, null when memory is short. */
template <typename T> static std::unique_ptr<T[]> zeroed_array(size_t size)
{
    return std::unique_ptr<T[]>(new (std::nothrow) T[size]());
}

/* ---- fields ---- */

/* A name that the platform does not know is told at once and does not stop the request. */
static void refuse_name(char *error_text)
{
    LOG(LOG_FAILURE, "%s", error_text);
    (void)send_failure_msg(MSG_FAILURE, BAD_REQUEST, error_text);
}

static int parse_fld_array(const json_t *fields, stats_request *request, char *error_text)
{
    size_t size = json_array_size(fields);
    if (size == 0)
        return FAIL(BAD_REQUEST, "Field object is missing in stats request");
    request->fld_array = zeroed_array<fld_entry>(size);
    if (!request->fld_array)
        return FAIL(INTERNAL_ERROR, "Out of Memory, malloc failed");
    LOG(LOG_TRACE, "%s: MALLOC request->fld_array=%p", "parse_fld_array",
        static_cast<void *>(request->fld_array.get()));
    request->fld_size = clamp_to_int32(static_cast<int64_t>(size));
    for (size_t i = 0; i < size; i++) {
        const char *name = json_string_value(json_array_get(fields, i));
        if (!name)
            return FAIL(UNREADABLE, "Failed to retrieve the field ");
        if (platform_set_fld_index(&request->fld_array[i], name) != 0) {
            set_error_text(error_text, "Invalid field [%s], please check", name);
            refuse_name(error_text);
        }
    }
    return NO_ERROR;
}

/* ---- tables ---- */

static int parse_tbl_array(const json_t *columns, tbl_entry *table, char *error_text)
{
    size_t size = json_array_size(columns);
    if (size == 0)
        return FAIL(UNREADABLE, "Empty tbl array requested");
    table->fld_array = zeroed_array<fld_entry>(size);
    if (!table->fld_array)
        return FAIL(UNREADABLE, "Failed to allocate memory for tbl arrays, can't proceed with parsing");
    LOG(LOG_TRACE, "%s: MALLOC request->table->fld_array=%p", "parse_tbl_array",
        static_cast<void *>(table->fld_array.get()));
    table->fld_size = clamp_to_int32(static_cast<int64_t>(size));
    for (size_t i = 0; i < size; i++) {
        const char *name = json_string_value(json_array_get(columns, i));
        if (!name)
            return FAIL(BAD_REQUEST,
                        "Either tbl_value is null or it is not string, please check stats json request");
        if (platform_map_table_field_to_index(&table->fld_array[i], name, table->name) != 0) {
            set_error_text(error_text,
                           "Not able to find field  %s in %s table, 0 please check the json request", name,
                           table->name);
            refuse_name(error_text);
        }
    }
    return NO_ERROR;
}

static int parse_table(const char *name, const json_t *columns, tbl_entry *table, char *error_text)
{
    if (!json_is_array(columns))
        return FAIL(BAD_REQUEST, "Not an array object in tables....");
    (void)platform_set_tbl_name(table->name, name);
    int status = parse_tbl_array(columns, table, error_text);
    if (status != NO_ERROR)
        LOG(LOG_FAILURE, "%s", error_text);
    else
        LOG(LOG_TRACE, "Parsing of Table [ %s ] complete", table->name);
    return status;
}

static int parse_tbl_object(json_t *tables, stats_request *request, char *error_text)
{
    size_t size = json_object_size(tables);
    LOG(LOG_TRACE, "Table size is %d ", clamp_to_int32(static_cast<int64_t>(size)));
    if (size == 0) {
        LOG(LOG_FAILURE, "Not able to iterate table object");
        return FAIL(BAD_REQUEST, "Not able to get tablesize  Please check the stats json request");
    }
    request->tbl_array = zeroed_array<tbl_entry>(size);
    if (!request->tbl_array)
        return FAIL(INTERNAL_ERROR, "Not able to allocate memory for table array , can't proceed");
    LOG(LOG_TRACE, "%s: MALLOC request->tbl_array=%p", "parse_tbl_object",
        static_cast<void *>(request->tbl_array.get()));
    LOG(LOG_TRACE, "Iterate over table elements");
    request->tbl_size = clamp_to_int32(static_cast<int64_t>(size));
    const char *name;
    json_t *columns;
    size_t i = 0;
    json_object_foreach(tables, name, columns)
    {
        int status = parse_table(name, columns, &request->tbl_array[i++], error_text);
        if (status != NO_ERROR)
            return status;
    }
    return NO_ERROR;
}

/* ---- request objects ---- */

/* The low 32 bits, signed. */
static int32_t slot_index(const json_t *element)
{
    return static_cast<int32_t>(json_integer_value(json_object_get(element, "index")));
}

static int32_t interval_of(const json_t *element)
{
    return clamp_to_int32(json_integer_value(json_object_get(element, "interval")));
}

/* Checks one periodic element and clears the slot that it replaces. Nothing is allocated here, so that a bad
 * element anywhere keeps all of them out. */
static int validate_periodic(const json_t *element, char *error_text)
{
    if (!json_object_get(element, "index"))
        return FAIL(BAD_REQUEST, "Index is missing in stats request");
    int32_t index = slot_index(element);
    if (index < FIRST_PERIODIC_SLOT || index >= STATS_SLOTS)
        return FAIL(BAD_REQUEST, "Index out of range");
    if (!json_object_get(element, "interval"))
        return FAIL(BAD_REQUEST, "Interval object is missing in stats request");
    if (interval_of(element) < 1)
        return FAIL(BAD_REQUEST, "Interval object value in stats request should be greater than 0");
    stats_slot &slot = g_stats_info[index];
    if (slot.active) {
        LOG(LOG_FAILURE, "Periodic request already active, replacing with new one");
        free_stats_request(index);
        stop_stats_timer(&slot);
    }
    return NO_ERROR;
}

static int parse_lists(const json_t *element, stats_request *request, char *error_text)
{
    const json_t *fields = json_object_get(element, "fields");
    if (json_is_array(fields)) {
        int status = parse_fld_array(fields, request, error_text);
        if (status != NO_ERROR)
            return status;
    }
    json_t *tables = json_object_get(element, "tables");
    return json_is_object(tables) ? parse_tbl_object(tables, request, error_text) : NO_ERROR;
}

/* Arms a filled slot. */
static int start_periodic(stats_slot *slot, char *error_text)
{
    slot->active = 1;
    if (start_stats_timer(slot) != 0) {
        free_stats_request(slot->t_index);
        return FAIL(BAD_REQUEST, "Failed to start periodic stats timer");
    }
    LOG(LOG_TRACE, "Started pstats timer t_index=%d timer=%p", slot->t_index,
        static_cast<void *>(slot->timer));
    return NO_ERROR;
}

/* Fills the slot of one request object; a periodic one also starts. */
static int build_request(const json_t *element, bool periodic, std::unique_ptr<stats_request> request,
                         char *error_text)
{
    int32_t index = periodic ? slot_index(element) : int32_t{ONE_TIME_SLOT};
    stats_slot &slot = g_stats_info[index];
    LOG(LOG_EVENT, "t_index = %d", index);
    slot.t_index = index;
    slot.interval = interval_of(element);
    LOG(LOG_EVENT, "p_stats_info->interval = %d", slot.interval);
    slot.request = std::move(request); /* what an earlier object of the same index put there goes */
    int status = parse_lists(element, slot.request.get(), error_text);
    if (status != NO_ERROR) {
        if (periodic) { /* an earlier object of the same message may have begun it */
            stop_stats_timer(&slot);
            slot.active = 0;
        }
        free_stats_request(index);
        return status;
    }
    return periodic ? start_periodic(&slot, error_text) : int{NO_ERROR};
}

static int build_requests(const json_t *array, bool periodic, char *error_text)
{
    static const char function[] = "parse_stats_object";
    size_t count = json_array_size(array);
    for (size_t i = 0; i < count; i++) {
        std::unique_ptr<stats_request> request(new (std::nothrow) stats_request());
        if (!request)
            return FAIL(INTERNAL_ERROR, "Out of memory , malloc failed");
        LOG(LOG_TRACE, "%s: MALLOC request=%p", function, static_cast<void *>(request.get()));
        LOG(LOG_TRACE, "%s: stats request object %zu/%zu, periodic=%d", function, i, count, periodic ? 1 : 0);
        const json_t *element = json_array_get(array, i);
        if (!json_is_object(element))
            return FAIL(BAD_REQUEST, "%s: Not an array", function);
        int status = build_request(element, periodic, std::move(request), error_text);
        if (status != NO_ERROR)
            return status;
    }
    return NO_ERROR;
}

static int parse_stats_object(const json_t *array, bool periodic, char *error_text)
{
    if (!periodic) {
        if (json_array_size(array) > 1)
            return FAIL(BAD_REQUEST, "on-demand stats request can have only 1 request object");
    } else {
        size_t i;
        json_t *element;
        json_array_foreach(array, i, element)
        {
            int status = json_is_object(element) ? validate_periodic(element, error_text) : int{NO_ERROR};
            if (status != NO_ERROR)
                return status;
        }
    }
    return build_requests(array, periodic, error_text);
}

/* ---- messages ---- */

/* A failure whose text is told here, once: everything below only writes it. */
static int told(int status, const char *error_text)
{
    LOG(LOG_FAILURE, "%s", error_text);
    return status;
}

int parse_stats_request(const json_t *obj, char *error_text)
{
    if (!obj)
        return told(FAIL(UNREADABLE, "unable to parse an object"), error_text);
    const json_t *stats = json_object_get(obj, "stats");
    if (!stats)
        return NO_ERROR;
    if (!json_is_array(stats)) {
        LOG(LOG_FAILURE, "stats is not an array");
        return FAIL(BAD_REQUEST, "stats json attribute is not of type STRING");
    }
    if (json_array_size(stats) == 0)
        return told(FAIL(BAD_REQUEST, "Stats attribute in request is an empty array"), error_text);
    LOG(LOG_TRACE, "%s: Calling parse_stats_object", "parse_stats_request");
    if (parse_stats_object(stats, true, error_text) != NO_ERROR)
        return told(BAD_REQUEST, error_text);
    return NO_ERROR;
}

/* The kind of report as the daemon is asked for it. */
static int32_t report_kind(const json_t *obj, stats_kind kind)
{
    if (kind == STATS_DEVICE_INFO)
        return REPORT_DEVICE_INFO;
    if (kind != STATS_CUSTOM)
        return REPORT_ON_DEMAND;
    const json_t *given = json_object_get(obj, "subType");
    int32_t subtype =
        json_is_integer(given) ? clamp_to_int32(json_integer_value(given)) : int32_t{REPORT_FIRST_CUSTOM};
    LOG(LOG_TRACE, "%s: CUSTOM_INFO (%d) requested subtype %d", "parse_build_on_demand_stats", kind, subtype);
    return subtype;
}

int parse_build_on_demand_stats(const json_t *obj, char *error_text, stats_kind kind)
{
    static const char function[] = "parse_build_on_demand_stats";
    LOG(LOG_TRACE, "%s: ENTRY", function);
    if (const json_t *stats = json_object_get(obj, "stats")) {
        if (!json_is_array(stats))
            return told(FAIL(BAD_REQUEST, "stats object in json  is not an array"), error_text);
        if (json_array_size(stats) == 0)
            return told(FAIL(BAD_REQUEST, "Stats attribute in request is an empty array"), error_text);
        int status = parse_stats_object(stats, false, error_text);
        if (status != NO_ERROR) {
            free_stats_request(ONE_TIME_SLOT);
            return told(status, error_text);
        }
    }
    (void)platform_get_stats();
    (void)platform_build_and_send_stats(ONE_TIME_SLOT, report_kind(obj, kind));
    LOG(LOG_TRACE, "%s: Free all memory alloc'd for this onetime request", function);
    free_stats_request(ONE_TIME_SLOT);
    return NO_ERROR;
}
