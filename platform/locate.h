/*
 * "Where is this access point?": its LEDs blink.
 */
#pragma once

/* Runs the device's tool and waits for it. Always 0, whatever the tool does. */
int platform_locate(void);
