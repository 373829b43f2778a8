/*
 * Replies of the Wi-Fi daemon, byte by byte.
 */
#pragma once

#include <cstdint>
#include <string>

inline std::string number_bytes(int32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof(value)};
}

inline std::string scan_header(int32_t type, unsigned neighbour_count, unsigned channel_count)
{
    return number_bytes(type) + "unused" + static_cast<char>(neighbour_count) +
           static_cast<char>(channel_count);
}

inline std::string channel_bytes(int32_t channel, int32_t interference, int32_t noise, int32_t num_aps)
{
    return number_bytes(channel) + number_bytes(interference) + number_bytes(noise) + number_bytes(num_aps);
}

/* The bytes of a field of that size: filled up with NULs, or cut. */
inline std::string field_bytes(std::string text, size_t size)
{
    text.resize(size, '\0');
    return text;
}

inline std::string neighbour_bytes(const std::string &bssid, const std::string &ssid,
                                   const std::string &encryption, int32_t channel, int32_t signal)
{
    return field_bytes(bssid, 6) + field_bytes(ssid, 32) + field_bytes(encryption, 34) +
           number_bytes(channel) + number_bytes(signal) + "padding.";
}

inline std::string failure_bytes(const std::string &text) { return number_bytes(2) + "unused" + text; }
