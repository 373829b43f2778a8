/*
 * What a program that looks for the controller takes from its environment: nothing.
 */
#pragma once

/*
 * Nothing of the environment may steer where the process connects or whom it trusts (proxies, CA folders), a
 * name look-up is bounded (RESOLVER_OPTIONS), and wherever it was started, it holds no folder.
 */
void settle_environment(void);
