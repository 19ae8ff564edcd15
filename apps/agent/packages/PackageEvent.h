// PackageEvent.h: the agent event about a package or removal marker.
#pragma once

#include <cstdint>

class wxFileName;

namespace VelCore {
class CAgentEvent;
}

/// What became of a package (Installed, NotInstalled) or of a removal marker.
///
/// Source: docs/PACKAGES.md, "Events".
enum class PackageOutcome { Installed, NotInstalled, Removed, NotRemoved };

/// Sets what is known beforehand: the description "<plug-in name>|<base name>|<path>", and the time.
///
/// package    with its path
/// nowMillis  since 1970-01-01 UTC
void DescribePackage(VelCore::CAgentEvent& event, const wxFileName& package, std::int64_t nowMillis);

/// Sets event number and severity.
void SetOutcome(VelCore::CAgentEvent& event, PackageOutcome outcome);
