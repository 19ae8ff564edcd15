// Failure.h: why a command stops, and with which status.
#pragma once

#include <string>

/// The exit statuses.
enum class Status {
    Done = 0,
    Refused = 1, // the agent would not take it, or it cannot be packed
    Failed = 2,  // wrong usage, or a file that cannot be read or written
};

/// A command that stops. Functions that may fail return `std::optional<Failure>`; nothing is a success.
struct Failure
{
    Status status;
    std::string text; // names the thing and the reason; no full stop, no line feed
};
