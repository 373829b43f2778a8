#include "operations/upgrade-results.h"

#include <climits>

#include <gtest/gtest.h>

static const char *const states[] = {"Successful",
                                     "GenericError",
                                     "GenericError",
                                     "DownloadFailed",
                                     "UnpackFailed",
                                     "FwDSCheckFailed",
                                     "BootloaderDSCheckFailed",
                                     "FwFlashingFailed",
                                     "BootloaderFlashingFailed",
                                     "BootPartitionSwitchFailed",
                                     "UnsupportedSKU",
                                     "UnknownSwVersion",
                                     "DowngradeUnsupportedWithWiFiMode",
                                     "DowngradeUnsupportedWithLockedGPS",
                                     "UnknownError"};

static const char *const messages[] = {
    "Finished successfully, waiting for reboot",
    "Generic Error",
    "Generic Error",
    "SW update file download failed",
    "Unpack failed, damaged or wrong format package",
    "Firmware digital signature check failed",
    "Bootloader digital signature check failed",
    "Firmware FLASH write failed",
    "Bootloader FLASH write failed",
    "Boot partition switch failed",
    "Board SKU is not supported for this firmware",
    "Can't read firmware version, upgrade is impossible",
    "Down-grade not supported for 802.11 driver",
    "Down-grade below 2.3.1 not supported on boards where the GPS is locked",
    "Software update failed due to unknown reason"};

TEST(upgrade_results, every_status_has_its_row)
{
    for (int status = 0; status < UPGRADE_RESULT_COUNT; status++) {
        EXPECT_STREQ(find_upgrade_result(status).state, states[status]);
        EXPECT_STREQ(find_upgrade_result(status).message, messages[status]);
    }
}

TEST(upgrade_results, any_other_status_has_the_last)
{
    for (int status : {-1, 15, 16, 127, 200, 255, INT_MAX, INT_MIN})
        EXPECT_STREQ(find_upgrade_result(status).state, "UnknownError") << status;
}
