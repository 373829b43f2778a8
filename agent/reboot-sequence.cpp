#include "agent/reboot-sequence.h"

#include "agent/ws-close.h"

enum { CLOSE_FRAME_DELAY = 5 }; /* seconds for the close frame to get through */

void reboot_begin(reboot_sequence *sequence, int32_t seconds)
{
    if (!sequence->close_sent)
        timer_arm(sequence->delay, seconds);
}

bool reboot_is_due(reboot_sequence *sequence)
{
    if (sequence->close_sent) {
        timer_fired(sequence->close_frame);
        sequence->close_sent = 0;
        return true;
    }
    timer_fired(sequence->delay);
    if (sequence->say_goodbye)
        sequence->say_goodbye();
    else
        close_websocket();
    sequence->close_sent = 1;
    timer_arm(sequence->close_frame, CLOSE_FRAME_DELAY);
    return false;
}

void reboot_again(reboot_sequence *sequence, int32_t seconds)
{
    sequence->close_sent = 1;
    timer_arm(sequence->close_frame, seconds);
}

bool reboot_is_pending(const reboot_sequence &sequence)
{
    return sequence.delay.handle || sequence.close_sent;
}

void reboot_stop(reboot_sequence *sequence)
{
    timer_disarm(sequence->delay);
    timer_disarm(sequence->close_frame);
    sequence->close_sent = 0;
}
