/*
 * What a transfer takes from its environment: nothing. It goes where it was told to, and trusts the
 * certificates of the system alone.
 */
#pragma once

/* Forgets every variable that libcurl, OpenSSL or the resolver would obey, and settles the rest as the agent
 * does, but for the working folder. */
void settle_surroundings(void);

/* Whether a variable of this name is forgotten. */
bool steers_a_transfer(const char *name);
