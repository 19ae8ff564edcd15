#include <VelCore/AgentEvent.h>

#include <gtest/gtest.h>

#include <wx/log.h>

#include "events/EventText.h"

using VelCore::CAgentEvent;

namespace {

TEST(AgentEvent, SeverityFollowsTheLogLevel)
{
    const struct
    {
        unsigned long level;
        int severity;
    } cases[] = {
        {wxLOG_FatalError, 2}, {wxLOG_Error, 3}, {wxLOG_Warning, 4}, {wxLOG_Message, 5},
        {wxLOG_Status, 6},     {wxLOG_Info, 6},  {wxLOG_Debug, 7},   {wxLOG_Trace, 7},
    };
    for (const auto& row : cases)
        EXPECT_EQ(row.severity, CAgentEvent::ToSeverity(row.level)) << row.level;
}

TEST(AgentEvent, LevelsOfNoFixedMeaningCountAsDebugOutput)
{
    for (const unsigned long level : {8UL, 100UL, ~0UL})
        EXPECT_EQ(7, CAgentEvent::ToSeverity(level)) << level;
}

TEST(AgentEvent, AttributesAreAbsentUntilMarkedPresent)
{
    CAgentEvent event;
    EXPECT_TRUE(event.AttributeIsNull(&event.description));
    EXPECT_TRUE(event.AttributeIsNull(&event.eventNumber));

    event.SetAttributeNull(&event.eventNumber, false);
    event.SetAttributeNull(&event.eventNumber, false);
    EXPECT_FALSE(event.AttributeIsNull(&event.eventNumber));
    EXPECT_TRUE(event.AttributeIsNull(&event.description));

    event.SetAttributeNull(&event.eventNumber, true);
    EXPECT_TRUE(event.AttributeIsNull(&event.eventNumber));
}

TEST(AgentEvent, ACopyKnowsItsOwnAttributes)
{
    CAgentEvent event;
    event.SetAttributeNull(&event.severity, false);
    CAgentEvent copy = event;
    copy.SetAttributeNull(&copy.timeMillis, false);

    EXPECT_FALSE(copy.AttributeIsNull(&copy.severity));
    EXPECT_FALSE(copy.AttributeIsNull(&copy.timeMillis));
    EXPECT_TRUE(event.AttributeIsNull(&event.timeMillis));
}

TEST(AgentEvent, TextHoldsWhatIsPresentAndTheDescriptionLast)
{
    CAgentEvent event;
    EXPECT_EQ("", VelCore::EventText(event));

    event.description = L"100%s\n\u00e4";
    event.eventNumber = -5;
    event.severity = 4;
    event.timeSeconds = 1763700000;
    event.timeMillis = 1763700000123;
    event.SetAttributeNull(&event.description, false);
    event.SetAttributeNull(&event.timeMillis, false);
    EXPECT_EQ("time_ms=1763700000123, description=100%s\n\xC3\xA4", VelCore::EventText(event));

    event.SetAttributeNull(&event.eventNumber, false);
    event.SetAttributeNull(&event.severity, false);
    event.SetAttributeNull(&event.timeSeconds, false);
    EXPECT_EQ("event_number=-5, severity=4, time_s=1763700000, time_ms=1763700000123, description=100%s\n\xC3\xA4",
              VelCore::EventText(event));
}

} // namespace
