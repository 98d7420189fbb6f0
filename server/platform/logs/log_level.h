// Severity levels of the log facility. Lower numbers are more severe; the numbers are part of the
// interface (callers pass small integers), the names are only for readability.
#pragma once

namespace utility::logs {

enum LogLevel : int {
    Fatal = 0,     // once, right before a deliberate exit of the process
    Critical = 1,  // unexpected exceptions, missing files that must exist
    Error = 2,     // errors and stops
    Warning = 3,   // anomalies caused by a client, time-outs
    Info = 4,      // milestones
    Debug = 5,
    Trace = 6,
};

constexpr int kLogLevelMin = Fatal;
constexpr int kLogLevelMax = Trace;

}  // namespace utility::logs
