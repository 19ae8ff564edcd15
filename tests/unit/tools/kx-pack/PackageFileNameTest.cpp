#include "PackageFileName.h"

#include <gtest/gtest.h>

namespace {

PackageNameParts Sample()
{
    return {"Feature", "Sample", "11.0.0", "1234", "x86_64"};
}

std::string ProblemOf(const PackageNameParts& parts)
{
    std::string name;
    const auto failure = ComposePackageName(parts, name);
    return failure ? failure->text : "none: " + name;
}

} // namespace

TEST(PackageFileName, PartsMakeAName)
{
    std::string name;

    ASSERT_FALSE(ComposePackageName(Sample(), name));

    EXPECT_EQ("Feature-Sample-11.0.0-1234.x86_64.kxp", name);
    EXPECT_FALSE(CheckPackageName(name));
}

TEST(PackageFileName, PartThatWouldSplitTheNameIsRefused)
{
    PackageNameParts parts = Sample();
    for (const char* wrong : {"", "a-b", "a.b", "a/b", "a b", "a\n", "\xC3\xA9"}) {
        parts.plugin = wrong;
        EXPECT_EQ(std::string("the name '") + wrong + "' has to consist of letters, digits, '_' and '+'",
                  ProblemOf(parts));
    }

    parts = Sample();
    parts.kind = "a-b";
    EXPECT_EQ("the kind 'a-b' has to consist of letters, digits, '_' and '+'", ProblemOf(parts));
    parts = Sample();
    parts.build = "1a";
    EXPECT_EQ("the build number '1a' has to consist of digits", ProblemOf(parts));
    parts = Sample();
    parts.suffix = "";
    EXPECT_EQ("the suffix '' has to consist of letters, digits, '_' and '+'", ProblemOf(parts));
}

TEST(PackageFileName, AgentVersionHasThreeNumbers)
{
    PackageNameParts parts = Sample();
    for (const char* wrong : {"11", "11.0", "11.0.", ".11.0", "11..0", "11.0.0.1"}) {
        parts.agentVersion = wrong;
        EXPECT_EQ(std::string("the agent's version '") + wrong + "' is not of the form 11.0.0", ProblemOf(parts));
    }
    parts.agentVersion = "11.0.x";
    EXPECT_EQ("the agent's version '11.0.x' has to consist of digits and dots", ProblemOf(parts));
    parts.agentVersion = "12.3.4";
    EXPECT_EQ("none: Feature-Sample-12.3.4-1234.x86_64.kxp", ProblemOf(parts));
}

TEST(PackageFileName, ExtensionBeginsAtTheLastDot)
{
    EXPECT_EQ(".kxp", ExtensionOf("a.b.kxp"));
    EXPECT_EQ("", ExtensionOf("kxp"));
    EXPECT_EQ(".", ExtensionOf("a."));
    EXPECT_EQ("a.b.kxu", WithExtension("a.b.kxp", ".kxu"));
    EXPECT_EQ("kxp.kxu", WithExtension("kxp", ".kxu"));
}

TEST(PackageFileName, AgentPassesOverHiddenFilesAndCorePackages)
{
    EXPECT_EQ("the agent does not look at hidden files", WhyPassedOver(".x.kxp"));
    EXPECT_EQ("the agent does not look at hidden files", WhyPassedOver(".kxe"));
    EXPECT_EQ("the agent deletes packages whose names begin with 'Agent-Core'", WhyPassedOver("Agent-Core.kxp"));
    EXPECT_EQ("the agent deletes packages whose names begin with 'Agent-Core'", WhyPassedOver("Agent-Cores-1.kxp"));
    for (const char* taken : {"x.kxp", "agent-core.kxp", "Agent-Cor.kxp", "Agent-Core.kxu", "Agent-Core.kxe"})
        EXPECT_FALSE(WhyPassedOver(taken)) << taken;
}

TEST(PackageFileName, NameThatTheAgentWouldRefuseIsRefused)
{
    EXPECT_FALSE(CheckPackageName("Sample.kxp"));
    EXPECT_FALSE(CheckPackageName(std::string(246, 'n') + ".kxp"));

    const auto other = CheckPackageName("Feature-Sample-10.5.0-1234.x86_64.kxp");
    ASSERT_TRUE(other);
    EXPECT_EQ(Status::Refused, other->status);
    EXPECT_EQ("'Feature-Sample-10.5.0-1234.x86_64.kxp' is no name for a package: the agent's version, 11.0.0, does not "
              "stand in front of the build number",
              other->text);
    EXPECT_TRUE(CheckPackageName("Feature-Sample-11.0.0-1234.kxp"));
    EXPECT_TRUE(CheckPackageName(std::string(247, 'n') + ".kxp"));
    EXPECT_TRUE(CheckPackageName(".hidden.kxp"));
}
