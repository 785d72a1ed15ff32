// What a service manager wants to hear of a program, by the protocol of sd_notify(3): a datagram of VARIABLE=VALUE
// lines to the socket that the environment names. A few lines of ours rather than a library in every program.
#ifndef SERVICE_NOTIFY_H
#define SERVICE_NOTIFY_H

#include <chrono>
#include <optional>
#include <string_view>

namespace service {

// READY=1 when the program serves, STOPPING=1, WATCHDOG=1. Does nothing when no service manager asked to be told.
void notify(std::string_view state);

// The program reads its configuration again; READY=1 ends it.
void notify_reloading();

// How often the service manager is to hear WATCHDOG=1: half of what it waits for. Nothing: it does not listen.
std::optional<std::chrono::milliseconds> watchdog_interval();

}  // namespace service

#endif  // SERVICE_NOTIFY_H
