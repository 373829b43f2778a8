#include "tests/unit/fake-device.h"

#include <cstdio>
#include <cstring>

#include <sys/sysinfo.h>

#include "device/tavosutils.h"

fake_device device;

extern "C" {

int get_sku(void) { return device.sku; }

const char *get_device_model(void) { return device.model.c_str(); }

const char *get_other_version(void) { return device.other_version.c_str(); }

int get_serial_number(char *, int *) { return -1; }

int get_device_ip(char *buffer)
{
    snprintf(buffer, DEVICE_IP_SIZE, "%s", device.ip_address.c_str());
    return device.ip_address.empty() ? -1 : 0;
}

char *db_read(const char *key)
{
    auto item = device.items.find(key);
    return item == device.items.end() ? nullptr : strdup(item->second.c_str());
}

/* The C library's own, replaced. */
int gethostname(char *name, size_t size) noexcept
{
    snprintf(name, size, "%s", device.host_name.c_str());
    return 0;
}

int sysinfo(struct sysinfo *info) noexcept
{
    *info = {};
    info->uptime = device.uptime;
    return 0;
}
}
