/*
 * What the tests of the configuration jobs share: a connected agent, a stored configuration with a backup,
 * tools and a daemon that obey.
 */
#pragma once

#include <string>
#include <vector>

#include <unistd.h>

#include "agent/owners.h"
#include "operations/config-files.h"
#include "operations/config-reboot.h"
#include "operations/config-restore.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-scm.h"
#include "tests/unit/fake-tools.h"
#include "tests/unit/told.h"

#define OLD_CONFIG "hostname old\nradio 1\n"
#define OLDER_BACKUP "hostname older\n"

class config_test : public connection_test {
protected:
    void SetUp() override;
    void TearDown() override;

    int timers_before; /* those of the connection */
};

/* Removes whatever is in the folder of the configuration and the fragment. */
void remove_config_files(void);

/* The runs of the two copies and of the shell, as tools.ran has them. */
extern const char copied_to_backup[], copied_back[], shell_saved[];

/* The 406 message with these two texts. */
std::string status_message(const std::string &status, const std::string &message);
