// RootDomain.h: a root domain for one test.
#pragma once

#include <memory>

#include <VelCore/Dom.h>

namespace VelTest {

/// A new root domain, whose settings log and trace follow.
inline std::unique_ptr<VelCore::CDom> NewRootDomain()
{
    return std::unique_ptr<VelCore::CDom>(VelCore::CDom::New(nullptr, nullptr, nullptr, false));
}

/// A new domain that nothing else knows.
inline std::unique_ptr<VelCore::CDom> NewDomain()
{
    return std::unique_ptr<VelCore::CDom>(VelCore::CDom::New(nullptr, nullptr, nullptr, true));
}

} // namespace VelTest
