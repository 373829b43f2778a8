/*
 * What the agent has queued for the controller.
 */
#pragma once

#include <string>
#include <vector>

#include "agent/txq.h"

/* The queued messages, oldest first; the queue is empty afterwards. */
inline std::vector<std::string> take_queued(void)
{
    std::vector<std::string> messages;
    for (const txq_msg *frame = txq; frame; frame = frame->next) {
        if ((frame->write_mode & 0x0F) != 2)
            messages.emplace_back();
        messages.back().append(frame->msg, frame->len);
    }
    purge_txq();
    return messages;
}

/* The one message that is queued; a text that says so when there is none or more. */
inline std::string take_one_queued(void)
{
    std::vector<std::string> messages = take_queued();
    return messages.size() == 1 ? messages[0] : "there are " + std::to_string(messages.size()) + " messages";
}
