/*
 * To which upstream port is this access point attached? It asks with LLDP (IEEE 802.1AB) frames out of "eth0"
 * and "eth1" and takes the chassis MAC of the peer whose answer carries the maker's marker. At most five
 * frames go out of each interface for a connection.
 */
#pragma once

/*
 * Opens the listener and starts a new discovery: the attempt counter is 0 again, an older listener is closed,
 * da.dev_info.parent_mac keeps its last value until it is replaced. pmac_discovery_complete is the caller's.
 * Returns 0, or -1 when the socket cannot be had.
 */
int platform_start_pmac_listener(void);

/* One attempt; the sixth ends the discovery. Returns 0. Does nothing once the discovery is complete. */
int platform_find_parent_mac(void);
