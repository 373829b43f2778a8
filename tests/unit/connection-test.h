/*
 * What the tests of the connection share: the whole agent core, wired as it runs, on a clock that jumps, a
 * websocket library that obeys and neighbours that do as they are told.
 */
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "agent/cfg-restore-timer.h"
#include "agent/config-change.h"
#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "agent/reasons.h"
#include "agent/registration.h"
#include "agent/state-connecting.h"
#include "agent/state-idle.h"
#include "agent/txq.h"
#include "agent/wiring.h"
#include "agent/ws-close.h"
#include "agent/ws-link.h"
#include "agent/ws-ping.h"
#include "agent/ws-rx.h"
#include "agent/ws-session.h"
#include "platform/connection-status.h"
#include "platform/state-files.h"
#include "tests/unit/fake-clock.h"
#include "tests/unit/fake-lws.h"
#include "tests/unit/fake-neighbours.h"
#include "tests/unit/support.h"

/* Starts and ends with an agent that has just started: state 0, no timer, no descriptor, MAC
 * 02:4F:56:00:00:01. */
class connection_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

/* Enters connecting towards 127.0.0.1:8443; the library has made a handle. */
void begin_connecting(void);

/* Connecting, and the library reports established: state 3. The search for the parent MAC is complete unless
 * asked. */
void connect_agent(bool parent_mac_known = true);

/* Lets the library do this in its next service, and the loop serve it. */
void in_library(const std::function<void()> &act);

/* Runs passes until everything queued is on the wire. */
void drain(void);

/* Whether a message that begins so was logged, and how many. */
bool was_logged_beginning(const std::string &beginning);
int times_logged_beginning(const std::string &beginning);

/* The number behind such a beginning in the newest message that has it, -1 when there is none. */
int logged_number(const std::string &beginning);

/* Frames on the wire with this mode, and the text of the newest close frame, empty when there is none. */
int frames_of_mode(int mode);
std::string close_reason_on_wire(void);

/* Seconds that the clock moves until the condition holds, in passes of the loop; -1 after an hour. */
int seconds_until(const std::function<bool()> &condition);
