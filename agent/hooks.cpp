#include "agent/hooks.h"

agent_hooks hooks;
