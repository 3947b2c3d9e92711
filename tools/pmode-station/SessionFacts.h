#pragma once
// What a session learns from its requests and answers: the camera's identity
// (serial numbers and product number that a request writes or an answer reads) and
// the tables the camera sends (a data block that starts with a "*.csv" name line,
// a received file) or the PC hands over (the shutter times of shutter_speed2).
// Pure functions; any thread.

#include "RequestRun.h"
#include "ResultStore.h"

#include <string>
#include <vector>

struct CameraIdentity {
    std::string bodySerial;    ///< "sys_serial write SERIAL"
    std::string sensorSerial;  ///< the image sensor's (CIS) serial number
    std::string productNumber; ///< "line_process product_number write NUMBER"

    /// The serial the records are filed under: the body's, or the sensor's until the body's is known.
    std::string CameraSerial() const;
    bool operator==(const CameraIdentity& other) const;
};

/// Adds what request and its outcome tell of the camera to identity.
void LearnIdentity(const HostRequest& request, const RequestOutcome& outcome, CameraIdentity& identity);

/// The tables request and its outcome carry (session and seq left to the caller).
std::vector<station::TableRecord> TablesOf(const HostRequest& request, const RequestOutcome& outcome);
