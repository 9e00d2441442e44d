// Facts about this machine that the device reports carry. Stateless; read anew on every call.
#pragma once

#include "cloudmaterial/devicebinding/devicemessagejson.h"

#include <QByteArray>
#include <QHostAddress>
#include <QString>

#include <cstdint>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

/** Hardware address of the first valid non-loopback interface, upper case; empty if none. */
std::string localMacAddress();

/** First IPv4 address (other than 127.0.0.1) of a running interface; "0.0.0.0" if none. */
std::string localIpAddress();

/** The mounted volumes, in the system's order, as the storage report lists them. */
std::vector<DiskJson> diskList();

/** Master output volume in percent; throws std::runtime_error naming the step that failed. */
std::int32_t systemVolume();

/** What the MAC and address rules need to know of one network interface. */
struct InterfaceFacts
{
    bool valid = false;
    bool loopback = false;
    bool running = false;
    QString hardwareAddress;
    std::vector<QHostAddress> addresses;
};

/** Applies the MAC address rule to the given interfaces, in their order. */
std::string macAddressFrom(const std::vector<InterfaceFacts> &interfaces);

/** Applies the local address rule to the given interfaces, in their order. */
std::string ipAddressFrom(const std::vector<InterfaceFacts> &interfaces);

/** What diskList() needs to know of one mounted volume (kept apart so the rules can be fed). */
struct VolumeFacts
{
    bool valid = false;
    bool ready = false;
    QString name;
    QString rootPath;
    QByteArray fileSystemType;
    std::int64_t bytesTotal = 0;
    std::int64_t bytesAvailable = 0;
};

/** Applies the storage report's rules to the given volumes. */
std::vector<DiskJson> diskListFrom(const std::vector<VolumeFacts> &volumes);

/** Scalar volume (0.0 .. 1.0) to a percentage, truncated towards zero. */
std::int32_t volumeScalarToPercent(float scalar);

/** A mixer value within [min, max] to a percentage, truncated towards zero. */
std::int32_t volumeRangeToPercent(long min, long max, long value);

} // namespace talvor::cloudmaterial
