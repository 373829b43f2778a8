#include "operations/upgrade-results.h"

/* By exit status. Row 0 is never sent: the upgrade has succeeded then, and its messages are others. */
static const upgrade_result results[UPGRADE_RESULT_COUNT] = {
    {"Successful", "Finished successfully, waiting for reboot"},
    {"GenericError", "Generic Error"},
    {"GenericError", "Generic Error"}, /* the same on purpose */
    {"DownloadFailed", "SW update file download failed"},
    {"UnpackFailed", "Unpack failed, damaged or wrong format package"},
    {"FwDSCheckFailed", "Firmware digital signature check failed"},
    {"BootloaderDSCheckFailed", "Bootloader digital signature check failed"},
    {"FwFlashingFailed", "Firmware FLASH write failed"},
    {"BootloaderFlashingFailed", "Bootloader FLASH write failed"},
    {"BootPartitionSwitchFailed", "Boot partition switch failed"},
    {"UnsupportedSKU", "Board SKU is not supported for this firmware"},
    {"UnknownSwVersion", "Can't read firmware version, upgrade is impossible"},
    {"DowngradeUnsupportedWithWiFiMode", "Down-grade not supported for 802.11 driver"},
    {"DowngradeUnsupportedWithLockedGPS",
     "Down-grade below 2.3.1 not supported on boards where the GPS is locked"},
    {"UnknownError", "Software update failed due to unknown reason"},
};

const upgrade_result &find_upgrade_result(int exit_status)
{
    bool known = exit_status >= 0 && exit_status < UPGRADE_RESULT_COUNT;
    return results[known ? exit_status : UPGRADE_RESULT_UNKNOWN];
}
