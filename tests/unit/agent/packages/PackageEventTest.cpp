#include "packages/PackageEvent.h"

#include <string>

#include <gtest/gtest.h>

#include <wx/filename.h>

#include <VelCore/AgentEvent.h>
#include <VelCore/Utf8.h>

using VelCore::CAgentEvent;

namespace {

CAgentEvent Described(const std::string& path, std::int64_t nowMillis = 0)
{
    CAgentEvent event;
    DescribePackage(event, wxFileName(VelCore::FromUtf8(path)), nowMillis);
    return event;
}

std::string Description(const std::string& path)
{
    return VelCore::ToUtf8(Described(path).description);
}

TEST(PackageEvent, TheDescriptionIsPluginBaseNameAndPath)
{
    EXPECT_EQ("Sample|Feature-Sample-11.0.0-1234.x86_64|/opt/agent/Feature-Sample-11.0.0-1234.x86_64.kxp",
              Description("/opt/agent/Feature-Sample-11.0.0-1234.x86_64.kxp"));
    EXPECT_EQ("Sample|Sample|/opt/agent/Sample.kxu", Description("/opt/agent/Sample.kxu"));
}

TEST(PackageEvent, TheDescriptionKeepsEveryByteOfTheName)
{
    for (const std::string& name : {std::string("100%s%n%d"), std::string("it's \"quoted\""), std::string("a|b"),
                                    std::string("two\nlines\r\t\x1b[2J"), std::string("\xFF\xFE\xC3"),
                                    std::string("gr\xC3\xBC\xC3\x9F"), std::string("a\\b"), std::string(251, 'x')}) {
        std::string path = "/opt/";
        path.append(name).append(".kxp");
        std::string description = name;
        description.append("|").append(name).append("|").append(path);
        EXPECT_EQ(description, Description(path));
    }
}

TEST(PackageEvent, SecondsAreMillisecondsCutOff)
{
    const CAgentEvent event = Described("/a.kxp", 1764000001999);
    EXPECT_EQ(1764000001999, event.timeMillis);
    EXPECT_EQ(1764000001, event.timeSeconds);
}

TEST(PackageEvent, WhatIsSetIsPresent)
{
    CAgentEvent event = Described("/a.kxp");
    EXPECT_FALSE(event.AttributeIsNull(&event.description));
    EXPECT_FALSE(event.AttributeIsNull(&event.timeMillis));
    EXPECT_FALSE(event.AttributeIsNull(&event.timeSeconds));
    EXPECT_TRUE(event.AttributeIsNull(&event.eventNumber));
    EXPECT_TRUE(event.AttributeIsNull(&event.severity));

    SetOutcome(event, PackageOutcome::Installed);
    EXPECT_FALSE(event.AttributeIsNull(&event.eventNumber));
    EXPECT_FALSE(event.AttributeIsNull(&event.severity));
}

struct Kind
{
    PackageOutcome outcome;
    int number;
    int severity; // RFC 5424: 4 warning, 6 informational
};

TEST(PackageEvent, EveryOutcomeHasNumberAndSeverity)
{
    const Kind kinds[] = {
        {PackageOutcome::Installed, 5101, 6},
        {PackageOutcome::NotInstalled, 5102, 4},
        {PackageOutcome::Removed, 5105, 6},
        {PackageOutcome::NotRemoved, 5106, 4},
    };
    for (const Kind& kind : kinds) {
        CAgentEvent event;
        SetOutcome(event, kind.outcome);
        EXPECT_EQ(kind.number, event.eventNumber);
        EXPECT_EQ(kind.severity, event.severity) << kind.number;
    }
}

TEST(PackageEvent, AnEventUsedAgainTellsOnlyOfTheLastPackage)
{
    CAgentEvent event = Described("/one.kxp", 1000);
    SetOutcome(event, PackageOutcome::NotInstalled);

    DescribePackage(event, wxFileName(L"/two.kxp"), 2000);
    SetOutcome(event, PackageOutcome::Installed);

    EXPECT_EQ(L"two|two|/two.kxp", event.description);
    EXPECT_EQ(2, event.timeSeconds);
    EXPECT_EQ(2000, event.timeMillis);
    EXPECT_EQ(5101, event.eventNumber);
    EXPECT_EQ(6, event.severity);
}

} // namespace
