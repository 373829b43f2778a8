/*
 * Who answers whose calls upwards: the one place that knows all floors.
 */
#pragma once

/* Installs every hook (see agent/hooks.h for what each is for). */
void install_hooks(void);
