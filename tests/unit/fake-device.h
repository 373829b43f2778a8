/*
 * A device that is what the test says: its variant, address, host name, configuration items and uptime.
 */
#pragma once

#include <map>
#include <string>

struct fake_device {
    int sku = 6;
    std::string model = "Strata SA";
    std::string other_version;
    std::string ip_address = "192.0.2.7"; /* empty: it has none */
    std::string host_name = "ap-7";
    std::map<std::string, std::string> items; /* of its configuration */
    long uptime = 4242;
};

extern fake_device device;
