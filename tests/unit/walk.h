/*
 * For walks through everything that can happen to the connection: the situations to begin in, the events,
 * what must hold in every quiet moment, and a controller that does all it should.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

/* A situation of the agent. `reach` starts with an agent that has just started. */
struct walk_situation {
    const char *name;
    void (*reach)(void);
};
extern const std::vector<walk_situation> walk_situations;

/* Something that happens, where it can happen; it ends with the loop having dealt with it. */
struct walk_event {
    const char *name;
    bool (*possible)(void);
    void (*happen)(void);
};
extern const std::vector<walk_event> walk_events;

/* Undoes what events have changed about the neighbours: discovery works, the library connects. */
void walk_reset(void);

/* Let this library do the act in its next service, and serve it; with or without a descriptor. */
void walk_serve(const std::function<void()> &act);

/* What is wrong at this moment, while nobody calls the agent; empty when nothing is. */
std::string walk_wrong(void);

/* Whether the good controller answers a close frame; where it does not, the agent has to force the closure.
 */
extern bool walk_controller_closes;

/*
 * Leaves the agent alone with a good controller. Returns the seconds until it is registered on a connection
 * that will last, or -1 when that takes longer than `limit`; `wrong` takes what was wrong on the way.
 */
int walk_seconds_until_registered(int limit, std::string *wrong);
