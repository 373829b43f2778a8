/*
 * A test of the device's uplink. A plain Linux device has none: a maker whose device has one puts it here.
 */
#pragma once

/* Starts it. 0, or a status of protocol/error-codes.h, which the controller is told with 719. */
int platform_start_link_test(void);
