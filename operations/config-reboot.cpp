#include "operations/config-reboot.h"

#include "agent/named-timer.h"
#include "agent/ws-close.h"
#include "platform/reboot.h"

/* Seconds. */
enum {
    REBOOT_DELAY = 10,     /* the controller gets the last status */
    CLOSE_FRAME_DELAY = 5, /* the close frame gets through */
};

static named_timer reboot_delay_timer = {"REBOOT DELAY", config_reboot_timer_cb, nullptr};
static named_timer close_frame_timer = {"CLOSE FRAME DELAY", config_reboot_timer_cb, nullptr};
static int reboot_close_sent; /* the second stage */

void start_config_reboot(void)
{
    if (!reboot_close_sent)
        timer_arm(reboot_delay_timer, REBOOT_DELAY);
}

void config_reboot_timer_cb(void *)
{
    if (!reboot_close_sent) {
        timer_fired(reboot_delay_timer);
        close_websocket();
        reboot_close_sent = 1;
        timer_arm(close_frame_timer, CLOSE_FRAME_DELAY);
        return;
    }
    timer_fired(close_frame_timer);
    reboot_close_sent = 0;
    platform_reboot("SRV_CFG_UPD");
}

void config_reboot_reset(void)
{
    timer_disarm(reboot_delay_timer);
    timer_disarm(close_frame_timer);
    reboot_close_sent = 0;
}
