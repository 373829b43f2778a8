/*
 * Neighbours of the connection: discovery, which finds what the test says, the search for the parent MAC,
 * which only counts, and a resolver that knows addresses alone.
 */
#pragma once

#include <functional>
#include <string>

struct fake_neighbours {
    int discovery_result = 0;
    std::function<void()> during_discovery;
    const char *orv_url = "https://127.0.0.1:8443/ws"; /* null: none */
    int idle_time_out = 77;                            /* what set_discover_idle_time_out chooses */

    int discoveries = 0;
    int idle_time_outs_set = 0;
    int pmac_listeners = 0;
    int pmac_searches = 0;
    int pmac_complete_at_search = 0; /* the search that ends it; 0: none does */
};

extern fake_neighbours neighbours;
