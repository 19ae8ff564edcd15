// The application's log target.

#include "shell/AgentAppTraits.h"

#include <VelCore/Log2Disk.h>

CAgentAppTraits::~CAgentAppTraits() = default;

wxLog* CAgentAppTraits::CreateLogTarget()
{
    return new VelCore::CLog2Disk;
}
