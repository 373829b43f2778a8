/*
 * The session id: a random number below 2^31, drawn once per boot and kept in volatile storage, so that the
 * controller can tell a restarted agent from a rebooted device.
 */
#pragma once

#include <cstdint>

#define SESSION_ID_FILE "/tmp/session_id"

/* Reads the id, or draws and stores one. -1 when the file can be neither read nor made. */
int32_t get_session_id(void);
